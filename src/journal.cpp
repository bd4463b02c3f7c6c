#include "journal.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "unique_fd.h"
#include "vesk/root.h"

namespace vesk::dataupdate::journal {
namespace {

constexpr char kSuffix[] = ".json";

std::string PathOf(const std::string& name) {
  return Directory() + "/" + name + kSuffix;
}

}  // namespace

std::string Directory() {
  return platform::RootPath("/var/lib/data_update/journal");
}

void Write(const std::string& name, const Json::Value& record) {
  IOUtils().WriteJson(PathOf(name), record);
}

void Remove(const std::string& name) {
  const std::string path = PathOf(name);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    throw UpdateError("Fail to remove all: " + path);
  UniqueFd dir(open(Directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir && fsync(dir.get()) != 0 && errno != EINVAL)
    throw UpdateError("Fail to write: " + path);
}

std::optional<Json::Value> Read(const std::string& name) {
  try {
    Json::Value record = IOUtils().ReadJson(PathOf(name));
    if (record.isObject())
      return record;
  } catch (const std::exception&) {
    // A record that cannot be read names nothing that can be finished.
  }
  return std::nullopt;
}

std::vector<std::string> Names(const std::string& prefix) {
  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(Directory().c_str()), closedir);
  if (!dir)
    return names;
  const std::string suffix = kSuffix;
  while (const dirent* entry = readdir(dir.get())) {
    const std::string file = entry->d_name;
    if (file.size() > suffix.size() && file.compare(0, prefix.size(), prefix) == 0 &&
        file.compare(file.size() - suffix.size(), suffix.size(), suffix) == 0) {
      names.push_back(file.substr(0, file.size() - suffix.size()));
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace vesk::dataupdate::journal
