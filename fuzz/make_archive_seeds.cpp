// Writes the archive harnesses' seeds (run by hand: fuzz_make_archive_seeds FUZZ_DIR):
// corpus/archive_tar/{valid,refused}/ (an options byte, then a tar archive) and
// corpus/archive_package/{valid,refused}/ (packages signed with the fuzzing key).
// The replays make every valid seed extract and every refused one fail. A gzip
// header holds the time it was written, so rewritten .gz seeds differ there.
#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <string>
#include <vector>

#include "archive_check.h"
#include "package_craft.h"
#include "signing.h"
#include "test_support.h"
#include "vesk_internal/envelope.h"

namespace {

namespace fs = boost::filesystem;
namespace archive = vesk::fuzz::archive;
namespace publish = vesk::publish;
using namespace vesk::test;

constexpr size_t kBlock = 512;

// The archive's bytes; an uncompressed one loses the padding libarchive's writer
// adds after the end marker, so that the fuzzer works on small inputs.
std::string Tar(const std::vector<CraftEntry>& entries, Compression compression,
                const TempDir& work) {
  const std::string path = work / "seed.tar";
  WriteTarball(path, entries, compression);
  std::string bytes = ReadFile(path);
  if (compression == Compression::kNone) {
    while (bytes.size() >= kBlock &&
           std::all_of(bytes.end() - kBlock, bytes.end(), [](char c) { return c == '\0'; }))
      bytes.resize(bytes.size() - kBlock);
    bytes.append(2 * kBlock, '\0');  // the end marker: two zero blocks
  }
  return bytes;
}

std::string Sign(const std::string& tar, EVP_PKEY* key, int key_type, const TempDir& work) {
  WriteFile(work / "sign.tar", tar);
  publish::SignArchive(work / "sign.tar", work / "sign.pkg", key, static_cast<uint32_t>(key_type));
  return ReadFile(work / "sign.pkg");
}

archive::Options Opts(bool overwrite, bool prefilled = false, bool select_first = false,
                      bool select_missing = false) {
  return {overwrite, prefilled, select_first, select_missing};
}

// Writes `bytes` as FUZZ_DIR/corpus/<relative>.
void Write(const std::string& fuzz_dir, const std::string& relative, const std::string& bytes) {
  const std::string path = fuzz_dir + "/corpus/" + relative;
  fs::create_directories(fs::path(path).parent_path());
  WriteFile(path, bytes);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FUZZ_DIR\n", argv[0]);
    return 2;
  }
  const std::string fuzz_dir = argv[1];
  const auto tar_seed = [&](const std::string& kind, const std::string& name,
                            const archive::Options& options, const std::string& tar_bytes) {
    Write(fuzz_dir, "archive_tar/" + kind + "/" + name,
          std::string(1, static_cast<char>(archive::ByteFromOptions(options))) + tar_bytes);
  };
  const auto package_seed = [&](const std::string& kind, const std::string& name,
                                const std::string& package) {
    Write(fuzz_dir, "archive_package/" + kind + "/" + name, package);
  };
  TempDir work;
  const vesk::EvpPkeyPtr key = archive::SigningKey();
  const auto tar = [&](const std::vector<CraftEntry>& entries,
                       Compression compression = Compression::kNone) {
    return Tar(entries, compression, work);
  };

  // ------------------------------------------------------------ valid archives
  const std::string tree =
      tar({DirEntry("db"), FileEntry("db/main.sqlite", "SQLite format 3"),
           FileEntry("db/sub/notes.txt", "notes\n"), SymlinkEntry("db/current", "main.sqlite"),
           SymlinkEntry("latest", "db/sub"), FileEntry("./version", "7\n")});
  tar_seed("valid", "files_dirs_links.tar", Opts(true), tree);
  const std::vector<CraftEntry> small = {FileEntry("a.txt", "alpha"), DirEntry("b"),
                                         FileEntry("b/c.txt", "gamma")};
  tar_seed("valid", "gzip.tar.gz", Opts(true), tar(small, Compression::kGzip));
  tar_seed("valid", "xz.tar.xz", Opts(false), tar(small, Compression::kXz));
  tar_seed("valid", "zstd.tar.zst", Opts(true), tar(small, Compression::kZstd));
  const std::string long_dir = std::string(60, 'd') + "/" + std::string(70, 'e');
  tar_seed("valid", "long_names_and_link.tar", Opts(false),
           tar({FileEntry(long_dir + "/" + std::string(90, 'f'), "deep"),
                SymlinkEntry("shortcut",
                             long_dir + "/../" + std::string(70, 'e') + "/" + std::string(90, 'f')),
                FileEntry("donn\xc3\xa9"
                          "es/\xc3\xa9t\xc3\xa9.txt",
                          "non-ASCII")}));
  tar_seed("valid", "empty_archive.tar", Opts(false), tar({}));
  tar_seed("valid", "no_bytes_at_all.tar", Opts(false), "");
  CraftEntry read_only_dir = DirEntry("ro");
  read_only_dir.mode = 0500;
  CraftEntry private_file = FileEntry("ro/secret", "0400");
  private_file.mode = 0400;
  tar_seed("valid", "restrictive_modes.tar", Opts(false), tar({read_only_dir, private_file}));
  tar_seed("valid", "prefilled_overwrite_replaces.tar", Opts(true, true),
           tar({FileEntry("f", "new"), FileEntry("out/x", "inside"), FileEntry("d/new", "n"),
                SymlinkEntry("in", "d/new")}));
  tar_seed("valid", "prefilled_directory_replaces_outside_link.tar", Opts(true, true),
           tar({DirEntry("out"), DirEntry("in")}));
  tar_seed("valid", "prefilled_keeps_directories.tar", Opts(false, true),
           tar({DirEntry("d"), FileEntry("d/new", "n"), FileEntry("g", "g")}));
  tar_seed("valid", "select_first_entry.tar", Opts(false, false, true),
           tar({DirEntry("sel"), FileEntry("sel/a", "a"), FileEntry("other", "o")}));

  // ------------------------------------------------------------ refused archives
  const auto refused = [&](const std::string& name, const std::vector<CraftEntry>& entries,
                           const archive::Options& options = Opts(true)) {
    tar_seed("refused", name, options, tar(entries));
  };
  refused("absolute_name.tar", {FileEntry("ok", "1"), FileEntry("/tmp/veskdbud-fuzz-abs", "x")});
  refused("dotdot_name.tar", {FileEntry("ok", "1"), FileEntry("a/../../x", "x")});
  refused("link_climbing_out.tar", {SymlinkEntry("l", "sub/../../x")});
  refused("absolute_link.tar", {SymlinkEntry("l", "/etc")});
  refused("hard_link.tar", {FileEntry("a", "a"), HardlinkEntry("b", "a")});
  refused("char_device.tar", {SpecialEntry("null", CraftEntry::kCharDevice)});
  refused("block_device.tar", {SpecialEntry("loop", CraftEntry::kBlockDevice)});
  refused("fifo.tar", {SpecialEntry("pipe", CraftEntry::kFifo)});
  refused("entry_below_archive_link.tar",
          {DirEntry("d"), SymlinkEntry("l", "d"), FileEntry("l/x", "x")});
  refused("link_through_link.tar",
          {DirEntry("d"), SymlinkEntry("a", "d"), SymlinkEntry("b", "a/x")});
  refused("file_named_dot.tar", {FileEntry(".", "x")});
  refused("duplicate_file.tar", {FileEntry("a", "1"), FileEntry("a", "2")}, Opts(false));
  refused("prefilled_below_outside_link.tar", {FileEntry("out/x", "x")}, Opts(false, true));
  refused("prefilled_existing_file.tar", {FileEntry("f", "x")}, Opts(false, true));
  refused("prefilled_link_into_outside_link.tar", {SymlinkEntry("esc", "out/secret")},
          Opts(true, true));
  refused("select_absolute_name.tar", {FileEntry("/abs", "x")}, Opts(true, false, true));
  refused("select_missing_name.tar", {FileEntry("a", "a")}, Opts(true, false, true, true));
  refused("empty_link_target.tar", {SymlinkEntry("l", "")});
  refused("prefilled_file_in_the_way.tar", {FileEntry("f/x", "x")}, Opts(false, true));
  // Only a link on the way is replaced by a directory; a file there fails the extraction.
  refused("prefilled_overwrite_file_in_the_way.tar", {FileEntry("f/x", "x")}, Opts(true, true));

  // ------------------------------------------------------------ packages
  package_seed("valid", "files_dirs_links.pkg", Sign(tree, key.get(), archive::kKeyType, work));
  const std::string gz = tar(small, Compression::kGzip);
  const std::string good = Sign(gz, key.get(), archive::kKeyType, work);
  package_seed("valid", "gzip.pkg", good);
  package_seed("valid", "empty_archive.pkg", Sign(tar({}), key.get(), archive::kKeyType, work));
  package_seed("valid", "zero_length_archive.pkg", Sign("", key.get(), archive::kKeyType, work));

  namespace envelope = vesk::envelope;
  std::string flipped_signature = good;
  flipped_signature[envelope::kHeaderSize + gz.size()] ^= 1;
  package_seed("refused", "flipped_signature.pkg", flipped_signature);
  std::string flipped_archive = good;
  flipped_archive[envelope::kHeaderSize + gz.size() / 2] ^= 0x40;
  package_seed("refused", "flipped_archive_byte.pkg", flipped_archive);
  package_seed("refused", "truncated.pkg", good.substr(0, good.size() - 1));
  package_seed("refused", "trailing_byte.pkg", good + "x");
  package_seed("refused", "other_key_type.pkg", Sign(gz, key.get(), archive::kKeyType + 1, work));
  const vesk::EvpPkeyPtr stranger = publish::GenerateSigningKey();
  package_seed("refused", "unknown_key.pkg", Sign(gz, stranger.get(), archive::kKeyType, work));
  package_seed("refused", "no_envelope.tar.gz", gz);
  package_seed("refused", "header_only.pkg", good.substr(0, envelope::kHeaderSize));
  std::string broken_trailer = good;
  broken_trailer[broken_trailer.size() - 1] = '?';
  package_seed("refused", "broken_trailer_magic.pkg", broken_trailer);
  package_seed("refused", "signed_hostile_entries.pkg",
               Sign(tar({FileEntry("a/../../x", "x")}), key.get(), archive::kKeyType, work));

  std::printf("wrote the seed inputs below %s/corpus\n", argv[1]);
  return 0;
}
