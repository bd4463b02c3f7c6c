#include "database_view.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "dataupdate/records.h"
#include "dataupdate/update.h"
#include "last_result.h"
#include "system_paths.h"

namespace vesk::cli {
namespace {

std::optional<int> ServerVersion(const Json::Value& document, const std::string& id) {
  if (!document.isObject() || !document["db_list"].isObject() ||
      !document["db_list"][id].isObject())
    return std::nullopt;
  try {
    return dataupdate::RemoteInfo::FromJson(document["db_list"][id]).data_version;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// The library's probe takes the lock for an instant and reads any failure to
// take it as "updating", including a lock file this user may not create. A lock
// file that does not exist is held by nobody (writers create it before they
// lock it and nothing removes it), so the tool answers that case itself.
bool NoLockFile(const std::string& fixed) {
  return access(SystemPath(fixed).c_str(), F_OK) != 0 && errno == ENOENT;
}

}  // namespace

ServerInfo ReadServerInfo(const dataupdate::IOUtils& io) {
  const std::string path = SystemPath("/var/cache/data_update/database_info.json");
  ServerInfo info;
  struct stat st;
  if (stat(path.c_str(), &st) != 0)
    return info;
  info.age = static_cast<long long>(std::time(nullptr) - st.st_mtime);
  try {
    info.document = io.ReadJson(path);
  } catch (const std::exception&) {
    // Unreadable or being rewritten: the server's versions are unknown.
  }
  return info;
}

DatabaseView ReadDatabaseView(const Library& lib, const ServerInfo& server, const std::string& id) {
  DatabaseView view;
  view.id = id;
  view.installed = lib.InstalledVersion(id);
  view.server = ServerVersion(server.document, id);
  const auto database = lib.service->GetDatabaseConfig(id);
  view.scheduled = database->GetScheduled();
  // A database kept on the volume has no directory while there is no volume.
  if (!database->GetRootDirectory().empty())
    view.install_directory = database->GetInstallPrefix();
  view.last_result = ReadLastResult(*lib.io, id);
  return view;
}

bool IsUpdating(const Library& lib, const std::string& id) {
  dataupdate::Checker checker(lib.service);
  if (id.empty())
    return !NoLockFile("/run/data_update/update_any.lock") && checker.IsAnyUpdating();
  return !NoLockFile("/run/data_update/update_" + id + ".lock") && checker.IsUpdating(id);
}

}  // namespace vesk::cli
