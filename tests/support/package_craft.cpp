#include "package_craft.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <stdexcept>

#include "signing.h"
#include "test_support.h"
#include "vesk_internal/archive_ptr.h"

namespace vesk::test {

void WriteTarball(const std::string& path, const std::vector<CraftEntry>& entries,
                  Compression compression) {
  ArchiveWritePtr a(archive_write_new());
  archive_write_set_format_pax_restricted(a.get());
  constexpr int kFilters[] = {ARCHIVE_FILTER_NONE, ARCHIVE_FILTER_GZIP, ARCHIVE_FILTER_XZ,
                              ARCHIVE_FILTER_ZSTD};  // in Compression's order
  archive_write_add_filter(a.get(), kFilters[static_cast<int>(compression)]);
  if (archive_write_open_filename(a.get(), path.c_str()) != ARCHIVE_OK)
    throw std::runtime_error("cannot write " + path);
  for (const auto& e : entries) {
    ArchiveEntryPtr entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), e.name.c_str());
    archive_entry_set_perm(entry.get(), 0644);
    archive_entry_set_mtime(entry.get(), 1000000000, 0);
    archive_entry_set_uid(entry.get(), 4321);  // nobody's: extraction must not restore it
    archive_entry_set_gid(entry.get(), 4321);
    // The file type of each CraftEntry::Kind, in its order.
    constexpr unsigned kTypes[] = {AE_IFREG, AE_IFDIR, AE_IFLNK, AE_IFREG,
                                   AE_IFCHR, AE_IFBLK, AE_IFIFO};
    archive_entry_set_filetype(entry.get(), kTypes[e.kind]);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(e.content.size()));
    if (e.kind == CraftEntry::kDir)
      archive_entry_set_perm(entry.get(), 0755);
    if (e.kind == CraftEntry::kSymlink)
      archive_entry_set_symlink(entry.get(), e.link.c_str());
    if (e.kind == CraftEntry::kHardlink)
      archive_entry_set_hardlink(entry.get(), e.link.c_str());
    if (e.kind == CraftEntry::kCharDevice)
      archive_entry_set_rdev(entry.get(), makedev(1, 3));  // what /dev/null is
    if (e.kind == CraftEntry::kBlockDevice)
      archive_entry_set_rdev(entry.get(), makedev(7, 0));
    if (e.mode != 0)
      archive_entry_set_perm(entry.get(), static_cast<mode_t>(e.mode));
    if (archive_write_header(a.get(), entry.get()) < ARCHIVE_WARN)
      throw std::runtime_error(std::string("cannot add ") + e.name + ": " +
                               archive_error_string(a.get()));
    if (!e.content.empty())
      archive_write_data(a.get(), e.content.data(), e.content.size());
  }
  if (archive_write_close(a.get()) != ARCHIVE_OK)
    throw std::runtime_error("cannot finish " + path);
}

void TrustKey(const std::string& root, EVP_PKEY* key, int key_type, const std::string& name) {
  WriteFile(root + "/usr/vesk/etc/keys/" + std::to_string(key_type) + "/" + name + ".pem",
            publish::PublicKeyPem(key));
}

std::vector<std::string> ListTree(const std::string& dir) {
  namespace fs = boost::filesystem;
  std::vector<std::string> found;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it)
    found.push_back(it->path().lexically_relative(dir).generic_string());
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace vesk::test
