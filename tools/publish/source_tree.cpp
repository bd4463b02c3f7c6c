#include "source_tree.h"

#include <boost/filesystem.hpp>

#include "publish_error.h"

namespace fs = boost::filesystem;

namespace vesk::publish {
namespace {

bool IsVersionName(const std::string& name, int* version) {
  if (name.empty() || name.size() > 9 || (name.size() > 1 && name[0] == '0'))
    return false;
  for (char c : name) {
    if (c < '0' || c > '9')
      return false;
  }
  *version = std::stoi(name);
  return true;
}

bool HasControlCharacter(const std::string& name) {
  for (unsigned char c : name) {
    if (c < 0x20 || c == 0x7f)
      return true;
  }
  return false;
}

VersionTree ScanVersion(const fs::path& dir, int version) {
  VersionTree tree;
  tree.version = version;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    const fs::path& p = it->path();
    const fs::file_status st = fs::symlink_status(p);
    if (fs::is_directory(st))
      continue;
    const std::string name = p.lexically_relative(dir).generic_string();
    if (!fs::is_regular_file(st))
      throw PublishError(p.string() + ": only regular files and directories can be published");
    if (HasControlCharacter(name))
      throw PublishError(p.string() + ": file names must not hold control characters");
    tree.files[name] = p.string();
    tree.newest_mtime = std::max<std::int64_t>(tree.newest_mtime, fs::last_write_time(p));
  }
  return tree;
}

}  // namespace

bool IsValidDatabaseId(const std::string& id) {
  if (id.empty() || id[0] == '.')
    return false;
  for (char c : id) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '_' || c == '-';
    if (!ok)
      return false;
  }
  return true;
}

std::vector<DatabaseSource> ScanSource(const std::string& root) {
  if (!fs::is_directory(root))
    throw PublishError("source " + root + " is not a directory");
  std::map<std::string, DatabaseSource> found;
  for (fs::directory_iterator db(root), end; db != end; ++db) {
    const std::string id = db->path().filename().string();
    if (id[0] == '.')
      continue;
    if (!fs::is_directory(fs::symlink_status(db->path())) || !IsValidDatabaseId(id))
      throw PublishError(db->path().string() +
                         ": expected a database directory named by letters, digits, '.', '_' "
                         "and '-'");
    DatabaseSource& source = found[id];
    source.id = id;
    for (fs::directory_iterator v(db->path()); v != end; ++v) {
      const std::string name = v->path().filename().string();
      int version = 0;
      if (name[0] == '.')
        continue;
      if (!fs::is_directory(fs::symlink_status(v->path())) || !IsVersionName(name, &version))
        throw PublishError(v->path().string() +
                           ": expected a version directory (a decimal number)");
      source.versions[version] = ScanVersion(v->path(), version);
    }
    if (source.versions.empty())
      throw PublishError(db->path().string() + ": no versions");
  }
  std::vector<DatabaseSource> result;
  for (auto& entry : found)
    result.push_back(std::move(entry.second));
  return result;
}

}  // namespace vesk::publish
