// Crafting packages for tests: tar archives with any entry a hostile publisher
// could write (libarchive's writer), signed with the publisher's own signing code,
// and a sandbox of trusted keys below VESKDBUD_ROOT.
#pragma once

#include <archive.h>

#include <memory>
#include <string>
#include <vector>

#include "vesk/archive.h"
#include "vesk_internal/ossl_ptr.h"

namespace vesk::test {

enum class Compression {
  kNone = ARCHIVE_FILTER_NONE,
  kGzip = ARCHIVE_FILTER_GZIP,
  kXz = ARCHIVE_FILTER_XZ,
  kZstd = ARCHIVE_FILTER_ZSTD
};

struct CraftEntry {
  enum Kind { kFile, kDir, kSymlink, kHardlink, kCharDevice, kBlockDevice, kFifo };
  Kind kind = kFile;
  std::string name;
  std::string content;  // kFile
  std::string link;     // kSymlink target or kHardlink original
  int mode = 0;         // permission bits; 0: 0644 (0755 for directories)
};

CraftEntry FileEntry(const std::string& name, const std::string& content);
CraftEntry DirEntry(const std::string& name);
CraftEntry SymlinkEntry(const std::string& name, const std::string& target);
CraftEntry HardlinkEntry(const std::string& name, const std::string& original);
CraftEntry SpecialEntry(const std::string& name, CraftEntry::Kind kind);

void WriteTarball(const std::string& path, const std::vector<CraftEntry>& entries,
                  Compression compression = Compression::kZstd);

// The binding of a diff package of `id` from `version` - 1 to `version`, as the
// engine asks for it, with `manifest` (JSON text) as the release's files.
std::string DiffBinding(const std::string& id, int version, const std::string& manifest = "{}");

// Trusts `key` for `key_type`: writes its public PEM as
// <root>/usr/vesk/etc/keys/<key_type>/<name>.pem.
void TrustKey(const std::string& root, EVP_PKEY* key, int key_type, const std::string& name);

std::vector<std::string> ListTree(const std::string& dir);

struct ArchiveFree {
  void operator()(veskarchive* h) const { veskarchive_free(h); }
};
using ArchivePtr = std::unique_ptr<veskarchive, ArchiveFree>;

}  // namespace vesk::test
