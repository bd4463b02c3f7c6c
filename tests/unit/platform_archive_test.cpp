// veskarchive_* over packages crafted with libarchive and signed with the publisher's
// code; every refusal leaves the target empty. publish_roundtrip_test pins the bytes.
#include "vesk/archive.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include "package_craft.h"
#include "signing.h"
#include "test_support.h"
#include "vesk_internal/envelope.h"
#include "vesk_internal/ossl_ptr.h"
#include "vesk_internal/unique_fd.h"

using namespace vesk::test;
namespace envelope = vesk::envelope;
namespace fs = boost::filesystem;

namespace {

std::string Flipped(std::string bytes, size_t at) {
  bytes.at(at) = static_cast<char>(bytes.at(at) ^ 0xff);
  return bytes;
}

class ArchiveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(target);
    TrustKey(root.path(), key.get(), 6, "vendor");
  }
  // A package of `entries` signed by `signer` (the trusted key) for `key_type`.
  std::string Package(const std::vector<CraftEntry>& entries,
                      Compression compression = Compression::kZstd, EVP_PKEY* signer = nullptr,
                      int key_type = 6) {
    const std::string name = work / ("p" + std::to_string(++packages));
    WriteTarball(name + ".tar", entries, compression);
    vesk::publish::SignArchive(name + ".tar", name, signer ? signer : key.get(), key_type);
    return name;
  }
  // Opens and extracts `package`; the handle's error code.
  int Extract(const std::string& package, int flags = VESKARCHIVE_EXTRACT_OVERWRITE,
              int key_type = 6) {
    ArchivePtr h(veskarchive_init(target.c_str()));
    if (veskarchive_open_with_keytype(h.get(), package.c_str(), key_type) != 0) {
      const bool ok = veskarchive_extract_multiple(h.get(), nullptr, flags) != 0;
      EXPECT_EQ(ok, veskarchive_error(h.get()) == VESKARCHIVE_OK);
    }
    return veskarchive_error(h.get());
  }
  void ClearTarget() {
    fs::remove_all(target);
    fs::create_directory(target);
  }
  TempDir root, work;
  ScopedEnv env{"VESKDBUD_ROOT", root.path().c_str()};
  std::string target = work / "target";
  vesk::EvpPkeyPtr key = vesk::publish::GenerateSigningKey();
  int packages = 0;
};

TEST_F(ArchiveTest, ExtractsEveryKindOfEntryFromEveryCompressionWithoutSpecialModes) {
  const std::string binary("\0\x01\xff\n\r", 5), raw = "raw\xff";
  CraftEntry setuid = FileEntry("tool", "#!/bin/sh\n"), sticky = DirEntry("shared");
  setuid.mode = 04755;
  sticky.mode = 01777;
  const mode_t mask = umask(022);
  for (const auto compression :
       {Compression::kNone, Compression::kGzip, Compression::kXz, Compression::kZstd}) {
    ClearTarget();
    ASSERT_EQ(
        Extract(Package({DirEntry("d"), FileEntry("d/" + raw, binary), FileEntry("e/f", ""),
                         SymlinkEntry("d/l", raw), SymlinkEntry("up", "e/../d"), setuid, sticky},
                        compression)),
        VESKARCHIVE_OK);
    EXPECT_EQ(ListTree(target), (std::vector<std::string>{"d", "d/l", "d/" + raw, "e", "e/f",
                                                          "shared", "tool", "up"}));
    EXPECT_EQ(ReadFile(target + "/d/" + raw) + fs::read_symlink(target + "/d/l").string() +
                  fs::read_symlink(target + "/up").string(),
              binary + raw + "e/../d");
    EXPECT_EQ(
        fs::status(target + "/tool").permissions() | fs::status(target + "/shared").permissions(),
        fs::perms(0755));
  }
  umask(mask);
  ClearTarget();
  EXPECT_EQ(Extract(Package({})), VESKARCHIVE_OK);
  EXPECT_TRUE(ListTree(target).empty());
}

TEST_F(ArchiveTest, DamagedOrUntrustedPackagesAreRefusedWithTheirCodeWritingNothing) {
  const std::string pristine = ReadFile(Package({FileEntry("a.txt", std::string(3000, 'a'))}));
  const size_t trailer = pristine.size() - envelope::kTrailerSize;
  const vesk::EvpPkeyPtr second = vesk::publish::GenerateSigningKey(),
                         stranger = vesk::publish::GenerateSigningKey();
  TrustKey(root.path(), second.get(), 6, "second");
  TrustKey(root.path(), stranger.get(), 5, "stranger");  // trusted for another key type only
  TrustKey(root.path(), key.get(), 5, "vendor");
  WriteFile(root / "usr/vesk/etc/keys/5/0.pem", "-----BEGIN PUBLIC KEY-----\n-----END");  // skipped
  const std::string for_five = Package({}, Compression::kZstd, key.get(), 5);
  EXPECT_EQ(Extract(for_five, VESKARCHIVE_EXTRACT_OVERWRITE, 5), VESKARCHIVE_OK);
  const envelope::KeyId id = vesk::publish::KeyIdOf(second.get());
  std::string swapped_id = pristine;  // another trusted key's id
  swapped_id.replace(trailer + envelope::kKeyIdOffset, id.size(),
                     std::string(id.begin(), id.end()));
  WriteTarball(work / "plain.tar", {FileEntry("a.txt", "unsigned")}, Compression::kNone);
  std::vector<std::pair<std::string, int>> damaged{
      {Flipped(pristine, envelope::kHeaderSize + 40), VESKARCHIVE_E_BAD_SIGNATURE},
      {swapped_id, VESKARCHIVE_E_BAD_SIGNATURE},
      {ReadFile(work / "plain.tar"), VESKARCHIVE_E_NO_ENVELOPE},
      {pristine + "extra", VESKARCHIVE_E_MALFORMED},
      {Flipped(pristine, pristine.size() - 1), VESKARCHIVE_E_MALFORMED},  // the magic
      {Flipped(pristine, trailer + envelope::kVersionOffset + 3), VESKARCHIVE_E_MALFORMED},
      {Flipped(pristine, trailer + envelope::kKeyIdOffset), VESKARCHIVE_E_UNKNOWN_KEY},
      {ReadFile(Package({}, Compression::kZstd, stranger.get())), VESKARCHIVE_E_UNKNOWN_KEY},
      {ReadFile(for_five), VESKARCHIVE_E_KEY_TYPE}};
  for (size_t keep : {size_t{1}, size_t{16}, pristine.size() / 2, trailer, pristine.size() - 1})
    damaged.emplace_back(pristine.substr(0, keep), VESKARCHIVE_E_TRUNCATED);
  for (size_t i = 0; i < damaged.size(); ++i) {
    WriteFile(work / "damaged", damaged[i].first);
    EXPECT_EQ(Extract(work / "damaged"), damaged[i].second) << "case " << i;
  }
  for (size_t i = 0; i < pristine.size(); ++i) {  // no flipped byte goes unnoticed
    WriteFile(work / "damaged", Flipped(pristine, i));
    ASSERT_NE(Extract(work / "damaged"), VESKARCHIVE_OK) << "byte " << i << " flipped";
  }
  ASSERT_EQ(mkfifo((work / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(Extract(work / "absent"), VESKARCHIVE_E_OPEN);
  EXPECT_EQ(Extract(work.path()), VESKARCHIVE_E_NOT_REGULAR);
  EXPECT_EQ(Extract(work / "fifo"), VESKARCHIVE_E_NOT_REGULAR);  // and does not block
  EXPECT_TRUE(ListTree(target).empty());
}

TEST_F(ArchiveTest, HostileEntriesAreRefusedBeforeAnyEntryIsWritten) {
  const std::vector<std::pair<std::vector<CraftEntry>, int>> cases{
      {{FileEntry("../x", "escape")}, VESKARCHIVE_E_DOTDOT},
      {{FileEntry("a/../../x", "escape")}, VESKARCHIVE_E_DOTDOT},
      {{FileEntry("/tmp/veskdbud-absolute", "x")}, VESKARCHIVE_E_ABSOLUTE_PATH},
      {{SymlinkEntry("etc", "/etc")}, VESKARCHIVE_E_LINK_OUTSIDE},
      {{SymlinkEntry("d/l", "../../x")}, VESKARCHIVE_E_LINK_OUTSIDE},
      {{SymlinkEntry("d/up", ".."), SymlinkEntry("esc", "d/up/..")}, VESKARCHIVE_E_LINK_OUTSIDE},
      {{HardlinkEntry("h", "ok.txt")}, VESKARCHIVE_E_HARDLINK},
      {{SpecialEntry("null", CraftEntry::kCharDevice)}, VESKARCHIVE_E_DEVICE},
      {{SpecialEntry("pipe", CraftEntry::kFifo)}, VESKARCHIVE_E_FIFO},
      {{SymlinkEntry("l", "sub"), DirEntry("sub"), FileEntry("l/x", "t")},
       VESKARCHIVE_E_THROUGH_LINK},
      {{FileEntry("l/x", "t"), SymlinkEntry("l", "sub")}, VESKARCHIVE_E_THROUGH_LINK}};
  for (size_t i = 0; i < cases.size(); ++i) {
    std::vector<CraftEntry> entries{FileEntry("ok.txt", "benign, and first")};
    entries.insert(entries.end(), cases[i].first.begin(), cases[i].first.end());
    EXPECT_EQ(Extract(Package(entries)), cases[i].second) << "case " << i;
    EXPECT_TRUE(ListTree(target).empty()) << "case " << i;
  }
}

// Without overwriting, an existing name, or a link in place on an entry's way,
// is refused before any entry is written (replacing with overwriting: the fuzz
// replay's "prefilled" seeds).
TEST_F(ArchiveTest, AnExistingNameOrALinkOnTheWayIsRefusedWithoutOverwriting) {
  WriteFile(target + "/f", "old");
  ASSERT_EQ(symlink(work.path().c_str(), (target + "/lib").c_str()), 0);
  EXPECT_EQ(Extract(Package({FileEntry("new", "n"), FileEntry("f", "new")}), 0),
            VESKARCHIVE_E_EXISTS);
  EXPECT_EQ(Extract(Package({FileEntry("lib/x", "inside")}), 0), VESKARCHIVE_E_THROUGH_LINK);
  EXPECT_FALSE(Exists(target + "/new") || Exists(work / "x"));
}

// Between open and extract: the package changed in place, replaced by another
// file, or the target renamed; the verified bytes go to the directory held.
TEST_F(ArchiveTest, WhatWasVerifiedIsWhatIsExtractedWhereverTheTargetMoves) {
  const std::string pkg = Package({FileEntry("a", std::string(2000, 'a'))});
  ArchivePtr h(veskarchive_init(target.c_str()));
  ASSERT_NE(veskarchive_open_with_keytype(h.get(), pkg.c_str(), 6), 0);
  ASSERT_EQ(pwrite(vesk::UniqueFd(open(pkg.c_str(), O_WRONLY | O_CLOEXEC)).get(), "Z", 1,
                   envelope::kHeaderSize + 30),
            1);
  EXPECT_EQ(veskarchive_extract_multiple(h.get(), nullptr, VESKARCHIVE_EXTRACT_OVERWRITE), 0);
  EXPECT_EQ(veskarchive_error(h.get()), VESKARCHIVE_E_CHANGED);
  EXPECT_TRUE(ListTree(target).empty());
  const std::string verified = Package({FileEntry("a", "ok")});
  ASSERT_NE(veskarchive_open_with_keytype(h.get(), verified.c_str(), 6), 0);
  ASSERT_EQ(rename(Package({FileEntry("a", "swapped")}).c_str(), verified.c_str()) |
                rename(target.c_str(), (work / "moved").c_str()),
            0);
  const std::string cwd = fs::current_path().string();
  ASSERT_NE(veskarchive_extract_multiple(h.get(), nullptr, VESKARCHIVE_EXTRACT_OVERWRITE), 0);
  EXPECT_EQ(fs::current_path().string() + ReadFile(work / "moved/a"), cwd + "ok");
}

}  // namespace
