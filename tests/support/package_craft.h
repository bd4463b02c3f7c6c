// Crafting packages for tests: tar archives with any entry a hostile publisher
// could write (libarchive's writer), signed with the publisher's own signing code,
// and a sandbox of trusted keys below VESKDBUD_ROOT.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vesk/archive.h"
#include "vesk_internal/ossl_ptr.h"

namespace vesk::test {

enum class Compression { kNone, kGzip, kXz, kZstd };

struct CraftEntry {
  enum Kind { kFile, kDir, kSymlink, kHardlink, kCharDevice, kBlockDevice, kFifo };
  Kind kind = kFile;
  std::string name;
  std::string content;  // kFile
  std::string link;     // kSymlink target or kHardlink original
  int mode = 0;         // permission bits; 0: 0644 (0755 for directories)
};

inline CraftEntry FileEntry(const std::string& name, const std::string& content) {
  return {CraftEntry::kFile, name, content, "", 0};
}
inline CraftEntry DirEntry(const std::string& name) {
  return {CraftEntry::kDir, name, "", "", 0};
}
inline CraftEntry SymlinkEntry(const std::string& name, const std::string& target) {
  return {CraftEntry::kSymlink, name, "", target, 0};
}
inline CraftEntry HardlinkEntry(const std::string& name, const std::string& original) {
  return {CraftEntry::kHardlink, name, "", original, 0};
}
inline CraftEntry SpecialEntry(const std::string& name, CraftEntry::Kind kind) {
  return {kind, name, "", "", 0};
}

void WriteTarball(const std::string& path, const std::vector<CraftEntry>& entries,
                  Compression compression = Compression::kZstd);

// Trusts `key` for `key_type`: writes its public PEM as
// <root>/usr/vesk/etc/keys/<key_type>/<name>.pem.
void TrustKey(const std::string& root, EVP_PKEY* key, int key_type, const std::string& name);

std::vector<std::string> ListTree(const std::string& dir);

struct ArchiveFree {
  void operator()(veskarchive* h) const { veskarchive_free(h); }
};
using ArchivePtr = std::unique_ptr<veskarchive, ArchiveFree>;

}  // namespace vesk::test
