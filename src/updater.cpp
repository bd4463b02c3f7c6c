#include "dataupdate/updater.h"

#include <boost/filesystem.hpp>
#include <fstream>

#include "dataupdate/io_utils.h"
#include "log_sites.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

// `root` / `name` with the v3 append: a name beginning with "/" is appended
// below `root`, never taken as a new root.
std::string JoinPath(const std::string& root, const std::string& name) {
  return (fs::path(root) / name).string();
}

// Throws the filesystem error for anything but a path that is not there.
bool Exists(const std::string& path) {
  const fs::file_status status = fs::status(path);
  return status.type() != fs::file_not_found && status.type() != fs::status_error;
}

// Opened for reading and writing on purpose: a file that cannot be opened so
// (a directory, a read-only file) yields the digest of a failed stream, which
// then does not match, instead of an error.
std::string DigestOf(const std::string& path) {
  std::fstream file(path);
  return GetSha384(file);
}

}  // namespace

std::map<std::string, FileStatus> CalculateStatus(std::set<std::string> files,
                                                  const std::string& root) {
  std::map<std::string, FileStatus> statuses;
  for (const std::string& name : files) {
    const std::string path = JoinPath(root, name);
    if (!Exists(path))
      continue;  // removed by the update: nothing to record
    statuses.emplace(name, FileStatus{DigestOf(path)});
  }
  return statuses;
}

bool CheckStatus(const std::map<std::string, FileStatus>& statuses, const std::string& root) {
  for (const auto& [name, status] : statuses) {
    const std::string path = JoinPath(root, name);
    if (!Exists(path)) {
      log::Write(log::site::kFileGone, path);
      return false;
    }
    if (DigestOf(path) != status.sha384_digest) {
      log::Write(log::site::kDigestMismatch, path);
      return false;
    }
  }
  return true;
}

}  // namespace vesk::dataupdate
