// Packages beyond the unit checks: an envelope made by an independent publisher
// from the documented layout, and memory that stays flat for a large package.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <fstream>

#include "file_io.h"
#include "package_craft.h"
#include "signing.h"
#include "tar_writer.h"
#include "test_support.h"
#include "vesk/archive.h"

using namespace vesk::test;
namespace publish = vesk::publish;

class PackageEnvelopeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    boost::filesystem::create_directories(target);
    boost::filesystem::create_directories(keys);
    publish::WriteKeyPair(key.get(), keys);
    TrustKey(root.path(), key.get(), 6, "vendor");
  }

  TempDir root;
  ScopedEnv env{"VESKDBUD_ROOT", root.path().c_str()};
  TempDir work;
  std::string target = work / "target";
  std::string keys = work / "keys";
  vesk::EvpPkeyPtr key = publish::GenerateSigningKey();
};

TEST_F(PackageEnvelopeTest, EnvelopeBuiltByHandFromTheDocumentedLayoutIsAccepted) {
  const std::string tar = work / "a.tar.gz";
  WriteTarball(tar, {FileEntry("docs/readme", "written by another publisher\n")},
               Compression::kGzip);
  const std::string pkg = work / "by-hand.pkg";
  const std::string cmd = "python3 " + SupportFile("envelope_by_hand.py") + " " + tar + " " + keys +
                          "/private.pem 6 " + pkg;
  ASSERT_EQ(std::system(cmd.c_str()), 0);

  publish::SignArchive(tar, work / "ours.pkg", key.get(), 6);
  EXPECT_EQ(ReadFile(pkg), ReadFile(work / "ours.pkg"));  // Ed25519 is deterministic

  ArchivePtr h(veskarchive_init(target.c_str()));
  ASSERT_NE(veskarchive_open_with_keytype(h.get(), pkg.c_str(), 6), 0)
      << veskarchive_error_detail(h.get());
  ASSERT_NE(veskarchive_extract_multiple(h.get(), nullptr, VESKARCHIVE_EXTRACT_OVERWRITE), 0)
      << veskarchive_error_detail(h.get());
  EXPECT_EQ(ReadFile(target + "/docs/readme"), "written by another publisher\n");
}

TEST_F(PackageEnvelopeTest, MemoryStaysFlatWhileALargePackageIsVerifiedAndExtracted) {
  constexpr size_t kMiB = 1024 * 1024;
  constexpr size_t kSize = 96 * kMiB;
  const std::string big = work / "big.bin";
  {
    std::ifstream random("/dev/urandom", std::ios::binary);
    std::ofstream out(big, std::ios::binary);
    std::vector<char> chunk(kMiB);
    for (size_t done = 0; done < kSize; done += kMiB) {
      random.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
      out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    }
  }
  const std::string tar = work / "big.tar.zst";
  publish::WriteTar(tar, {publish::FileMember("big.bin", big)}, 0);
  const std::string pkg = work / "big.pkg";
  publish::SignArchive(tar, pkg, key.get(), 6);
  ASSERT_GT(vesk::publish::FileSize(pkg), kSize);

  // A child measures its own peak resident set around open and extract.
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    veskarchive* h = veskarchive_init(target.c_str());
    const bool ok = h != nullptr && veskarchive_open_with_keytype(h, pkg.c_str(), 6) != 0 &&
                    veskarchive_extract_multiple(h, nullptr, VESKARCHIVE_EXTRACT_OVERWRITE) != 0;
    veskarchive_free(h);
    getrusage(RUSAGE_SELF, &after);
    const long grown_kib = after.ru_maxrss - before.ru_maxrss;
    _exit(!ok ? 2 : grown_kib > 24 * 1024 ? 3 : 0);  // far below the package's 96 MiB
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "2: extraction failed, 3: memory grew with the package";
  EXPECT_TRUE(publish::SameContent(big, target + "/big.bin"));
}
