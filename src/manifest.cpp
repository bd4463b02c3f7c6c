#include "manifest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <json/value.h>
#include <boost/filesystem.hpp>
#include <fstream>

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "log_sites.h"
#include "unique_fd.h"
#include "vesk/root.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

std::string Below(const std::string& install_prefix, const std::string& name) {
  return (fs::path(install_prefix) / name).string();
}

}  // namespace

std::string ManifestPath(const std::string& id) {
  return platform::RootPath((NoexceptFormat("/var/lib/data_update/%s/manifest.json") % id).str());
}

std::optional<Manifest> ReadStoredManifest(const std::string& id, int data_version) {
  const std::string path = ManifestPath(id);
  try {
    const Json::Value document = IOUtils().ReadJson(path);
    const Json::Value& version = document["data_version"];
    const Json::Value& files = document["files"];
    if (!version.isInt() || version.asInt() != data_version || !files.isObject()) {
      log::Write(log::site::kManifestNotOfRelease, path, data_version);
      return std::nullopt;
    }
    Manifest manifest;
    for (auto it = files.begin(); it != files.end(); ++it) {
      const Json::Value& digest = (*it)["sha384"];
      const Json::Value& size = (*it)["size"];
      if (!digest.isString() || !size.isUInt64()) {
        log::Write(log::site::kManifestNotOfRelease, path, data_version);
        return std::nullopt;
      }
      manifest.emplace_hint(manifest.end(), it.name(),
                            ManifestEntry{digest.asString(), size.asUInt64()});
    }
    return manifest;
  } catch (const UpdateError& e) {
    log::Write(log::site::kManifestUnreadable, std::string(e.what()));
  } catch (const Json::Exception& e) {
    log::Write(log::site::kManifestUnreadable, "Fail to decode: " + path);
  }
  return std::nullopt;
}

void WriteStoredManifest(const std::string& id, int data_version, const Manifest& manifest) {
  Json::Value files(Json::objectValue);
  for (const auto& [name, entry] : manifest) {
    Json::Value& file = files[name];
    file["sha384"] = entry.sha384;
    file["size"] = Json::UInt64(entry.size);
  }
  Json::Value document(Json::objectValue);
  document["data_version"] = data_version;
  document["files"] = std::move(files);
  IOUtils().WriteJson(ManifestPath(id), document);
}

void RemoveStoredManifest(const std::string& id) {
  const std::string path = ManifestPath(id);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    throw UpdateError("Fail to remove all: " + path);
  // The removal must be on the disk before any installed file changes.
  const std::string dir = fs::path(path).parent_path().string();
  UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd)
    static_cast<void>(fsync(fd.get()));
}

bool ManifestHolds(const Manifest& manifest, const std::string& install_prefix) {
  struct stat st;
  if (stat(install_prefix.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    log::Write(log::site::kFileGone, install_prefix);
    return false;
  }
  for (const auto& [name, entry] : manifest) {
    const std::string path = Below(install_prefix, name);
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
      log::Write(log::site::kFileGone, path);
      return false;
    }
    if (static_cast<std::uint64_t>(st.st_size) != entry.size) {
      log::Write(log::site::kFileSizeMismatch, path);
      return false;
    }
  }
  return true;
}

bool ManifestMatchesTree(const Manifest& manifest, const std::string& install_prefix,
                         const std::set<std::string>& verified) {
  bool intact = ManifestHolds(manifest, install_prefix);
  if (!intact)
    return false;
  for (const auto& [name, entry] : manifest) {
    if (verified.count(name) != 0)
      continue;
    const std::string path = Below(install_prefix, name);
    std::ifstream in(path, std::ios::binary);
    if (GetSha384(in) != entry.sha384) {
      log::Write(log::site::kDigestMismatch, path);
      intact = false;
    }
  }
  try {
    const fs::path base(install_prefix);
    for (fs::recursive_directory_iterator it(base), end; it != end; ++it) {
      if (fs::is_directory(it->symlink_status()))
        continue;
      const std::string name = it->path().lexically_relative(base).string();
      if (manifest.count(name) == 0) {
        log::Write(log::site::kFileNotOfRelease, it->path().string());
        intact = false;
      }
    }
  } catch (const fs::filesystem_error& e) {
    log::Write(log::site::kFileGone, install_prefix);
    return false;
  }
  return intact;
}

Manifest ManifestFromStatuses(const std::map<std::string, FileStatus>& statuses,
                              const std::string& install_prefix) {
  Manifest manifest;
  for (const auto& [name, status] : statuses) {
    const std::string relative = !name.empty() && name[0] == '/' ? name.substr(1) : name;
    struct stat st;
    const std::string path = Below(install_prefix, relative);
    if (stat(path.c_str(), &st) != 0)
      throw UpdateError("Fail to get size on " + path);
    manifest[relative] =
        ManifestEntry{status.sha384_digest, static_cast<std::uint64_t>(st.st_size)};
  }
  return manifest;
}

}  // namespace vesk::dataupdate
