// veskarchive_*: signed packages opened and extracted through the platform
// functions, with packages crafted by libarchive's writer and signed with the
// publisher's signing code. Every refusal leaves the target empty. The
// envelope's bytes are pinned by the package built by hand from the documented
// layout (publish_roundtrip_test); here also the decodings no small package reaches.
#include "vesk/archive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <boost/filesystem.hpp>
#include <set>

#include "package_craft.h"
#include "signing.h"
#include "test_support.h"
#include "vesk_internal/envelope.h"
#include "vesk_internal/ossl_ptr.h"
#include "vesk_internal/unique_fd.h"

using namespace vesk::test;
namespace publish = vesk::publish;
namespace envelope = vesk::envelope;

namespace {

std::string ReadLink(const std::string& path) {
  char buf[4096];
  ssize_t n = readlink(path.c_str(), buf, sizeof buf);
  return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

std::string Flipped(std::string bytes, size_t at) {
  bytes.at(at) = static_cast<char>(bytes.at(at) ^ 0xff);
  return bytes;
}

}  // namespace

class ArchiveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    boost::filesystem::create_directories(target);
    TrustKey(root.path(), key.get(), 6, "vendor");
  }

  // A package of `entries` signed by `signer` for `key_type`.
  std::string Package(const std::vector<CraftEntry>& entries, const std::string& name = "pkg",
                      Compression compression = Compression::kZstd, EVP_PKEY* signer = nullptr,
                      int key_type = 6) {
    const std::string tar = work / (name + ".tar");
    WriteTarball(tar, entries, compression);
    const std::string pkg = work / name;
    publish::SignArchive(tar, pkg, signer != nullptr ? signer : key.get(), key_type);
    return pkg;
  }

  // Opens and extracts; the handle's error code (VESKARCHIVE_OK on success).
  int ExtractError(const std::string& package, int flags = VESKARCHIVE_EXTRACT_OVERWRITE,
                   const char* const* entries = nullptr, int key_type = 6) {
    ArchivePtr h(veskarchive_init(target.c_str()));
    EXPECT_TRUE(h);
    if (veskarchive_open_with_keytype(h.get(), package.c_str(), key_type) == 0) {
      EXPECT_NE(veskarchive_error(h.get()), VESKARCHIVE_OK);
      return veskarchive_error(h.get());
    }
    const int ok = veskarchive_extract_multiple(h.get(), entries, flags);
    const int code = veskarchive_error(h.get());
    EXPECT_EQ(ok != 0, code == VESKARCHIVE_OK) << veskarchive_error_detail(h.get());
    last_detail = veskarchive_error_detail(h.get());
    return code;
  }

  TempDir root;
  ScopedEnv env{"VESKDBUD_ROOT", root.path().c_str()};
  TempDir work;
  std::string target = work / "target";
  vesk::EvpPkeyPtr key = publish::GenerateSigningKey();
  std::string last_detail;
};

TEST_F(ArchiveTest, ExtractsFilesDirectoriesLinksAndAnyNameInsideTheTarget) {
  const std::string binary("\0\x01\xff\n\r", 5);
  const std::string utf8 = "caf\xc3\xa9 \xc3\xbcn\xc3\xaf.txt", raw = "raw\xff";
  const std::string pkg =
      Package({DirEntry("d"), FileEntry("d/a.txt", "alpha\n"), FileEntry("top.bin", binary),
               FileEntry("d/e/f/g.txt", "deep"), SymlinkEntry("d/link", "a.txt"),
               SymlinkEntry("up", "d/e/../a.txt"), FileEntry(utf8, "utf-8"),
               FileEntry("d/" + raw, "bytes")});
  ASSERT_EQ(ExtractError(pkg), VESKARCHIVE_OK) << last_detail;
  EXPECT_EQ(ReadFile(target + "/d/a.txt"), "alpha\n");
  EXPECT_EQ(ReadFile(target + "/top.bin"), binary);
  EXPECT_EQ(ReadFile(target + "/d/e/f/g.txt"), "deep");
  EXPECT_EQ(ReadLink(target + "/d/link"), "a.txt");
  EXPECT_EQ(ReadLink(target + "/up"), "d/e/../a.txt");
  EXPECT_EQ(ReadFile(target + "/" + utf8), "utf-8");
  EXPECT_EQ(ReadFile(target + "/d/" + raw), "bytes");
  EXPECT_EQ(ListTree(target),
            (std::vector<std::string>{utf8, "d", "d/a.txt", "d/e", "d/e/f", "d/e/f/g.txt", "d/link",
                                      "d/" + raw, "top.bin", "up"}));
}

TEST_F(ArchiveTest, ReadsPlainGzipXzAndZstdTarballs) {
  const std::pair<Compression, std::string> kinds[] = {{Compression::kNone, "plain"},
                                                       {Compression::kGzip, "gzip"},
                                                       {Compression::kXz, "xz"},
                                                       {Compression::kZstd, "zstd"}};
  for (const auto& [compression, name] : kinds) {
    const std::string content = "payload of " + name + "\n" + std::string(5000, 'x');
    const std::string pkg = Package({FileEntry("dir/" + name, content)}, name, compression);
    ASSERT_EQ(ExtractError(pkg), VESKARCHIVE_OK) << name << ": " << last_detail;
    EXPECT_EQ(ReadFile(target + "/dir/" + name), content) << name;
  }
}

TEST_F(ArchiveTest, EmptyAndZeroLengthArchivesExtractNothing) {
  WriteFile(work / "zero.tar", "");
  publish::SignArchive(work / "zero.tar", work / "zero.pkg", key.get(), 6);
  for (const std::string& pkg : {Package({}), work / "zero.pkg"}) {
    ASSERT_EQ(ExtractError(pkg), VESKARCHIVE_OK) << last_detail;
    EXPECT_TRUE(ListTree(target).empty());
  }
}

TEST_F(ArchiveTest, OwnerAndSpecialModeBitsAreNotRestored) {
  CraftEntry setuid = FileEntry("tool", "#!/bin/sh\n");
  setuid.mode = 04755;
  CraftEntry sticky = DirEntry("shared");
  sticky.mode = 01777;
  const mode_t mask = umask(022);
  const int code = ExtractError(Package({setuid, sticky}));
  umask(mask);
  ASSERT_EQ(code, VESKARCHIVE_OK) << last_detail;
  struct stat st;
  ASSERT_EQ(stat((target + "/tool").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_EQ(st.st_uid, getuid());
  ASSERT_EQ(stat((target + "/shared").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
}

TEST_F(ArchiveTest, EveryFlippedByteIsRefusedBeforeAnythingIsWritten) {
  const std::string pkg = Package({FileEntry("a.txt", "first file\n"), FileEntry("b/c", "second")});
  const std::string pristine = ReadFile(pkg);
  ASSERT_GT(pristine.size(), envelope::kHeaderSize + envelope::kTrailerSize);
  ASSERT_EQ(ExtractError(pkg), VESKARCHIVE_OK) << last_detail;  // unflipped, it is accepted
  boost::filesystem::remove_all(target);
  boost::filesystem::create_directory(target);
  std::set<int> codes;
  for (size_t i = 0; i < pristine.size(); ++i) {
    WriteFile(pkg, Flipped(pristine, i));
    const int code = ExtractError(pkg);
    ASSERT_NE(code, VESKARCHIVE_OK) << "byte " << i << " flipped was accepted";
    ASSERT_TRUE(ListTree(target).empty()) << "byte " << i << " flipped wrote something";
    codes.insert(code);
  }
  // Flips in the header, the archive, the key id, the key type and the magic
  // are each told apart.
  EXPECT_TRUE(codes.count(VESKARCHIVE_E_BAD_SIGNATURE));
  EXPECT_TRUE(codes.count(VESKARCHIVE_E_NO_ENVELOPE));
  EXPECT_TRUE(codes.count(VESKARCHIVE_E_UNKNOWN_KEY));
  EXPECT_TRUE(codes.count(VESKARCHIVE_E_KEY_TYPE));
  EXPECT_TRUE(codes.count(VESKARCHIVE_E_MALFORMED));
}

TEST_F(ArchiveTest, DamagedOrUntrustedPackagesAreRefusedWithTheirCode) {
  const std::string pristine = ReadFile(Package({FileEntry("a.txt", std::string(3000, 'a'))}));
  const size_t trailer = pristine.size() - envelope::kTrailerSize;
  vesk::EvpPkeyPtr second = publish::GenerateSigningKey();
  TrustKey(root.path(), second.get(), 6, "second");
  const envelope::KeyId second_id = publish::KeyIdOf(second.get());
  std::string swapped_id = pristine;
  swapped_id.replace(trailer + envelope::kKeyIdOffset, second_id.size(),
                     std::string(second_id.begin(), second_id.end()));
  WriteTarball(work / "plain.tar", {FileEntry("a.txt", "unsigned")}, Compression::kNone);

  std::vector<std::pair<std::string, int>> damaged{
      {Flipped(pristine, envelope::kHeaderSize + 40),
       VESKARCHIVE_E_BAD_SIGNATURE},              // an archive byte
      {swapped_id, VESKARCHIVE_E_BAD_SIGNATURE},  // another trusted key's id
      {ReadFile(work / "plain.tar"), VESKARCHIVE_E_NO_ENVELOPE},
      {"", VESKARCHIVE_E_NO_ENVELOPE},
      {pristine + "extra", VESKARCHIVE_E_MALFORMED},
      {Flipped(pristine, pristine.size() - 1), VESKARCHIVE_E_MALFORMED},  // the trailer magic
      {Flipped(pristine, trailer + envelope::kVersionOffset + 3), VESKARCHIVE_E_MALFORMED},
  };
  for (size_t keep : {size_t{1}, size_t{8}, size_t{15}, size_t{16}, pristine.size() / 2, trailer,
                      pristine.size() - 1})
    damaged.emplace_back(pristine.substr(0, keep), VESKARCHIVE_E_TRUNCATED);
  for (size_t i = 0; i < damaged.size(); ++i) {
    WriteFile(work / "damaged", damaged[i].first);
    EXPECT_EQ(ExtractError(work / "damaged"), damaged[i].second) << "case " << i;
    EXPECT_TRUE(ListTree(target).empty()) << "case " << i;
  }

  auto signed_by = [&](EVP_PKEY* signer, int key_type, const std::string& name) {
    return Package({FileEntry("a", "x")}, name, Compression::kZstd, signer, key_type);
  };
  vesk::EvpPkeyPtr stranger = publish::GenerateSigningKey();
  vesk::EvpPkeyPtr other = publish::GenerateSigningKey();
  TrustKey(root.path(), other.get(), 5, "other");  // trusted for another key type only
  TrustKey(root.path(), key.get(), 5, "vendor");
  const std::string for_five = signed_by(key.get(), 5, "five");
  EXPECT_EQ(ExtractError(for_five, VESKARCHIVE_EXTRACT_OVERWRITE, nullptr, 5), VESKARCHIVE_OK);
  boost::filesystem::remove(target + "/a");
  ASSERT_EQ(mkfifo((work / "fifo").c_str(), 0600), 0);
  const std::pair<std::string, int> refused[] = {
      {signed_by(stranger.get(), 6, "stranger"), VESKARCHIVE_E_UNKNOWN_KEY},
      {signed_by(other.get(), 6, "other"), VESKARCHIVE_E_UNKNOWN_KEY},
      {for_five, VESKARCHIVE_E_KEY_TYPE},
      {work / "absent", VESKARCHIVE_E_OPEN},
      {work.path(), VESKARCHIVE_E_NOT_REGULAR},
      {work / "fifo", VESKARCHIVE_E_NOT_REGULAR},  // and does not block
  };
  for (const auto& [package, code] : refused) {
    EXPECT_EQ(ExtractError(package), code) << package;
    EXPECT_TRUE(ListTree(target).empty()) << package;
  }
  boost::filesystem::remove_all(root / "usr");  // no key directory: no key is trusted
  EXPECT_EQ(ExtractError(signed_by(key.get(), 6, "vendor")), VESKARCHIVE_E_UNKNOWN_KEY);
}

TEST_F(ArchiveTest, KeyFilesThatAreNotEd25519PublicKeysAreSkipped) {
  const std::string dir = root / "usr/vesk/etc/keys/6";
  WriteFile(dir + "/aaa.pem", "-----BEGIN PUBLIC KEY-----\ngarbage\n-----END PUBLIC KEY-----\n");
  WriteFile(dir + "/README", "not a key");
  ASSERT_EQ(0, std::system(("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 "
                            "2>/dev/null | openssl pkey -pubout -out " +
                            dir + "/bbb.pem 2>/dev/null")
                               .c_str()));
  EXPECT_EQ(ExtractError(Package({FileEntry("a", "x")})), VESKARCHIVE_OK) << last_detail;
  EXPECT_EQ(ReadFile(target + "/a"), "x");
}

struct HostileCase {
  const char* what;
  std::vector<CraftEntry> entries;
  int code;
};

TEST_F(ArchiveTest, HostileEntriesAreRefusedBeforeAnyEntryIsWritten) {
  using K = CraftEntry;
  const std::vector<HostileCase> cases{
      {"dot-dot", {FileEntry("../x", "escape")}, VESKARCHIVE_E_DOTDOT},
      {"inner dot-dot", {FileEntry("a/../../x", "escape")}, VESKARCHIVE_E_DOTDOT},
      {"absolute path",
       {FileEntry("/tmp/veskdbud-absolute", "escape")},
       VESKARCHIVE_E_ABSOLUTE_PATH},
      {"link to /etc", {SymlinkEntry("etc", "/etc")}, VESKARCHIVE_E_LINK_OUTSIDE},
      {"link climbing out", {SymlinkEntry("d/l", "../../x")}, VESKARCHIVE_E_LINK_OUTSIDE},
      {"link through a link",
       {SymlinkEntry("d/up", ".."), SymlinkEntry("esc", "d/up/..")},
       VESKARCHIVE_E_LINK_OUTSIDE},
      {"empty link", {SymlinkEntry("l", "")}, VESKARCHIVE_E_LINK_OUTSIDE},
      {"hard link", {HardlinkEntry("h", "ok.txt")}, VESKARCHIVE_E_HARDLINK},
      {"character device", {SpecialEntry("null", K::kCharDevice)}, VESKARCHIVE_E_DEVICE},
      {"block device", {SpecialEntry("loop", K::kBlockDevice)}, VESKARCHIVE_E_DEVICE},
      {"fifo", {SpecialEntry("pipe", K::kFifo)}, VESKARCHIVE_E_FIFO},
      {"file below a link of the archive",
       {SymlinkEntry("l", "sub"), DirEntry("sub"), FileEntry("l/x", "through")},
       VESKARCHIVE_E_THROUGH_LINK},
      {"file below a later link",
       {FileEntry("l/x", "through"), SymlinkEntry("l", "sub")},
       VESKARCHIVE_E_THROUGH_LINK},
  };
  int n = 0;
  for (const auto& c : cases) {
    std::vector<CraftEntry> entries{FileEntry("ok.txt", "benign, and first")};
    entries.insert(entries.end(), c.entries.begin(), c.entries.end());
    EXPECT_EQ(ExtractError(Package(entries, "hostile" + std::to_string(n++))), c.code) << c.what;
    EXPECT_TRUE(ListTree(target).empty()) << c.what;
  }
  EXPECT_FALSE(Exists(work / "x"));
  EXPECT_FALSE(Exists("/tmp/veskdbud-absolute"));
}

TEST_F(ArchiveTest, ExistingLinksInTheTargetAreNeverWrittenThrough) {
  TempDir outside;
  WriteFile(outside / "victim", "keep");
  ASSERT_EQ(symlink(outside.path().c_str(), (target + "/lib").c_str()), 0);
  ASSERT_EQ(symlink((outside / "victim").c_str(), (target + "/f").c_str()), 0);
  const std::string below = Package({FileEntry("lib/x", "inside")}, "below");
  const std::string at = Package({FileEntry("f", "new")}, "at");

  EXPECT_EQ(ExtractError(below, 0), VESKARCHIVE_E_THROUGH_LINK);
  EXPECT_EQ(ExtractError(at, 0), VESKARCHIVE_E_EXISTS);
  // Overwriting replaces the links themselves.
  ASSERT_EQ(ExtractError(below), VESKARCHIVE_OK) << last_detail;
  ASSERT_EQ(ExtractError(at), VESKARCHIVE_OK) << last_detail;
  EXPECT_EQ(ListTree(outside.path()), std::vector<std::string>{"victim"});
  EXPECT_EQ(ReadFile(outside / "victim"), "keep");
  struct stat st;
  ASSERT_EQ(lstat((target + "/lib").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(ReadFile(target + "/lib/x"), "inside");
  EXPECT_EQ(ReadLink(target + "/f"), "");
  EXPECT_EQ(ReadFile(target + "/f"), "new");
  // Nor is a link of the archive resolved through one.
  ASSERT_EQ(symlink("/", (target + "/rootlink").c_str()), 0);
  EXPECT_EQ(ExtractError(Package({SymlinkEntry("esc", "rootlink/etc")}, "esc")),
            VESKARCHIVE_E_LINK_OUTSIDE);
  EXPECT_FALSE(Exists(target + "/esc"));
}

TEST_F(ArchiveTest, OverwriteFlagDecidesWhetherExistingFilesAreReplaced) {
  WriteFile(target + "/a.txt", "old");
  WriteFile(target + "/d/keep", "kept");
  const std::string pkg = Package({FileEntry("b.txt", "b"), FileEntry("a.txt", "new")});
  EXPECT_EQ(ExtractError(pkg, 0), VESKARCHIVE_E_EXISTS);
  EXPECT_EQ(ReadFile(target + "/a.txt"), "old");
  EXPECT_FALSE(Exists(target + "/b.txt"));  // refused before the first entry

  ASSERT_EQ(ExtractError(pkg, VESKARCHIVE_EXTRACT_OVERWRITE), VESKARCHIVE_OK) << last_detail;
  EXPECT_EQ(ReadFile(target + "/a.txt"), "new");
  EXPECT_EQ(ReadFile(target + "/b.txt"), "b");
  // Existing directories are kept, even without the flag.
  ASSERT_EQ(ExtractError(Package({DirEntry("d"), FileEntry("d/new", "n")}, "dir"), 0),
            VESKARCHIVE_OK)
      << last_detail;
  EXPECT_EQ(ReadFile(target + "/d/keep"), "kept");
  EXPECT_EQ(ReadFile(target + "/d/new"), "n");
}

TEST_F(ArchiveTest, ExtractsOnlyTheRequestedEntries) {
  const std::string pkg =
      Package({FileEntry("d/a", "a"), FileEntry("d/sub/b", "b"), FileEntry("top", "t")});
  const char* const wanted[] = {"d", nullptr};
  ASSERT_EQ(ExtractError(pkg, VESKARCHIVE_EXTRACT_OVERWRITE, wanted), VESKARCHIVE_OK);
  EXPECT_EQ(ListTree(target), (std::vector<std::string>{"d", "d/a", "d/sub", "d/sub/b"}));

  boost::filesystem::remove_all(target + "/d");
  const char* const missing[] = {"top", "nope", nullptr};
  EXPECT_EQ(ExtractError(pkg, VESKARCHIVE_EXTRACT_OVERWRITE, missing), VESKARCHIVE_E_ENTRY_MISSING);
  EXPECT_TRUE(ListTree(target).empty());
}

TEST_F(ArchiveTest, CallsOutOfOrderOrWithBadArgumentsFail) {
  EXPECT_EQ(veskarchive_init((work / "no-such-dir").c_str()), nullptr);
  EXPECT_EQ(veskarchive_init(nullptr), nullptr);
  WriteFile(work / "file", "x");
  EXPECT_EQ(veskarchive_init((work / "file").c_str()), nullptr);

  ArchivePtr h(veskarchive_init(target.c_str()));
  ASSERT_TRUE(h);
  EXPECT_EQ(veskarchive_error(h.get()), VESKARCHIVE_OK);
  EXPECT_EQ(veskarchive_extract_multiple(h.get(), nullptr, VESKARCHIVE_EXTRACT_OVERWRITE), 0);
  EXPECT_EQ(veskarchive_error(h.get()), VESKARCHIVE_E_INVALID);
  ASSERT_NE(veskarchive_open_with_keytype(h.get(), Package({FileEntry("a", "x")}).c_str(), 6), 0);
  EXPECT_EQ(veskarchive_extract_multiple(h.get(), nullptr, 8), 0);
  EXPECT_EQ(veskarchive_error(h.get()), VESKARCHIVE_E_INVALID);
  EXPECT_EQ(veskarchive_open_with_keytype(h.get(), nullptr, 6), 0);
  EXPECT_EQ(veskarchive_error(h.get()), VESKARCHIVE_E_INVALID);

  EXPECT_EQ(veskarchive_open_with_keytype(nullptr, "x", 6), 0);
  EXPECT_EQ(veskarchive_extract_multiple(nullptr, nullptr, 4), 0);
  EXPECT_EQ(veskarchive_error(nullptr), VESKARCHIVE_E_INVALID);
  veskarchive_free(nullptr);
}

TEST_F(ArchiveTest, PackageChangedInPlaceAfterVerificationIsNotExtracted) {
  const std::string pkg = Package({FileEntry("a", std::string(2000, 'a'))});
  ArchivePtr h(veskarchive_init(target.c_str()));
  ASSERT_NE(veskarchive_open_with_keytype(h.get(), pkg.c_str(), 6), 0);
  {
    vesk::UniqueFd fd(open(pkg.c_str(), O_WRONLY | O_CLOEXEC));
    const char byte = 'Z';
    ASSERT_EQ(pwrite(fd.get(), &byte, 1, envelope::kHeaderSize + 30), 1);
  }
  EXPECT_EQ(veskarchive_extract_multiple(h.get(), nullptr, VESKARCHIVE_EXTRACT_OVERWRITE), 0);
  EXPECT_EQ(veskarchive_error(h.get()), VESKARCHIVE_E_CHANGED);
  EXPECT_TRUE(ListTree(target).empty());
}

TEST_F(ArchiveTest, FileSwappedAfterVerificationDoesNotReplaceWhatIsExtracted) {
  const std::string pkg = Package({FileEntry("a", "verified")}, "first");
  const std::string other = Package({FileEntry("a", "swapped in")}, "second");
  ArchivePtr h(veskarchive_init(target.c_str()));
  ASSERT_NE(veskarchive_open_with_keytype(h.get(), pkg.c_str(), 6), 0);
  ASSERT_EQ(rename(other.c_str(), pkg.c_str()), 0);
  ASSERT_NE(veskarchive_extract_multiple(h.get(), nullptr, VESKARCHIVE_EXTRACT_OVERWRITE), 0)
      << veskarchive_error_detail(h.get());
  EXPECT_EQ(ReadFile(target + "/a"), "verified");
}

TEST_F(ArchiveTest, ExtractsIntoTheDirectoryHeldSinceInitAndRestoresTheWorkingDirectory) {
  ArchivePtr h(veskarchive_init(target.c_str()));
  ASSERT_EQ(rename(target.c_str(), (work / "moved").c_str()), 0);
  char before[4096];
  ASSERT_NE(getcwd(before, sizeof before), nullptr);
  ASSERT_NE(veskarchive_open_with_keytype(h.get(), Package({FileEntry("a", "x")}).c_str(), 6), 0);
  ASSERT_NE(veskarchive_extract_multiple(h.get(), nullptr, VESKARCHIVE_EXTRACT_OVERWRITE), 0)
      << veskarchive_error_detail(h.get());
  char after[4096];
  ASSERT_NE(getcwd(after, sizeof after), nullptr);
  EXPECT_STREQ(before, after);
  EXPECT_EQ(ReadFile(work / "moved/a"), "x");
}

TEST_F(ArchiveTest, EveryErrorCodeHasItsOwnText) {
  std::set<std::string> texts;
  for (int code = VESKARCHIVE_OK; code <= VESKARCHIVE_E_INTERNAL; ++code)
    texts.insert(veskarchive_strerror(code));
  EXPECT_EQ(texts.size(), static_cast<size_t>(VESKARCHIVE_E_INTERNAL + 1));
  EXPECT_EQ(texts.count(veskarchive_strerror(VESKARCHIVE_E_INTERNAL + 1)), 0u);
}

TEST(Envelope, LengthsUseAllEightBytesAndFieldsDecodeAsEncoded) {
  const envelope::Header h = envelope::EncodeHeader(0x0102030405060708ULL);
  EXPECT_EQ(envelope::HeaderArchiveLength(h), 0x0102030405060708ULL);
  EXPECT_EQ(h[8], 0x01);
  EXPECT_EQ(h[15], 0x08);

  envelope::TrailerFields f;
  f.signature.fill(0xaa);
  f.key_id.fill(0xbb);
  f.key_type = 0x01020304;
  f.archive_length = 0x1122334455667788ULL;
  envelope::TrailerFields back;
  ASSERT_TRUE(envelope::DecodeTrailer(envelope::EncodeTrailer(f), &back));
  EXPECT_EQ(back.signature, f.signature);
  EXPECT_EQ(back.key_id, f.key_id);
  EXPECT_EQ(back.key_type, 0x01020304u);
  EXPECT_EQ(back.version, 1u);
  EXPECT_EQ(back.archive_length, 0x1122334455667788ULL);
}

TEST(Envelope, OnlyEd25519KeysHaveAKeyId) {
  vesk::EvpPkeyPtr rsa(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{1024}));
  ASSERT_TRUE(rsa);
  envelope::KeyId id;
  EXPECT_FALSE(envelope::ComputeKeyId(rsa.get(), &id));
}
