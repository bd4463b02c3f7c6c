// status and is-updating: what is installed, what the server offered when the
// document was last fetched, and whether an update runs. Nothing here
// downloads or changes a database.
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <iostream>
#include <optional>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "dataupdate/records.h"
#include "dataupdate/update.h"
#include "last_result.h"
#include "library.h"
#include "system_paths.h"

namespace vesk::cli {
namespace {

using dataupdate::RemoteInfo;

struct Row {
  std::string id;
  int installed = -1;
  std::optional<int> server;
  bool scheduled = true;
  std::optional<std::string> install_directory;
  Json::Value last_result;
};

struct ServerInfo {
  Json::Value document;          // null when there is no readable cached copy
  std::optional<long long> age;  // seconds since it was fetched
};

// The library's cached copy of the server's database-info document.
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

std::optional<int> ServerVersion(const Json::Value& document, const std::string& id) {
  if (!document.isObject() || !document["db_list"].isObject() ||
      !document["db_list"][id].isObject())
    return std::nullopt;
  try {
    return RemoteInfo::FromJson(document["db_list"][id]).data_version;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

Row ReadRow(const Library& lib, const ServerInfo& server, const std::string& id) {
  Row row;
  row.id = id;
  row.installed = lib.InstalledVersion(id);
  row.server = ServerVersion(server.document, id);
  const auto database = lib.service->GetDatabaseConfig(id);
  row.scheduled = database->GetScheduled();
  // A database kept on the volume has no directory while there is no volume.
  if (!database->GetRootDirectory().empty())
    row.install_directory = database->GetInstallPrefix();
  row.last_result = ReadLastResult(*lib.io, id);
  return row;
}

void PrintJson(const std::string& volume, const ServerInfo& server, const std::vector<Row>& rows) {
  Json::Value out(Json::objectValue);
  out["volume"] = volume.empty() ? Json::Value() : Json::Value(volume);
  out["server_info_age_seconds"] =
      server.age ? Json::Value(Json::Int64(*server.age)) : Json::Value();
  out["databases"] = Json::Value(Json::arrayValue);
  for (const Row& row : rows) {
    Json::Value db(Json::objectValue);
    db["id"] = row.id;
    db["installed_version"] = row.installed < 0 ? Json::Value() : Json::Value(row.installed);
    db["server_version"] = row.server ? Json::Value(*row.server) : Json::Value();
    db["scheduled"] = row.scheduled;
    db["install_directory"] =
        row.install_directory ? Json::Value(*row.install_directory) : Json::Value();
    db["last_result"] = row.last_result;
    out["databases"].append(db);
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  std::cout << Json::writeString(builder, out) << std::endl;
}

void PrintTable(const std::string& volume, const ServerInfo& server, const std::vector<Row>& rows) {
  std::vector<std::vector<std::string>> cells{
      {"DATABASE", "INSTALLED", "SERVER", "SCHEDULED", "LAST RESULT", "INSTALL DIRECTORY"}};
  for (const Row& row : rows) {
    cells.push_back({row.id, VersionText(row.installed),
                     row.server ? VersionText(*row.server) : "?", row.scheduled ? "yes" : "no",
                     LastResultSummary(row.last_result), row.install_directory.value_or("-")});
  }
  std::vector<size_t> width(cells[0].size(), 0);
  for (const auto& line : cells) {
    for (size_t i = 0; i < line.size(); ++i)
      width[i] = std::max(width[i], line[i].size());
  }
  for (const auto& line : cells) {
    std::string text;
    for (size_t i = 0; i < line.size(); ++i)
      text +=
          i + 1 < line.size() ? line[i] + std::string(width[i] - line[i].size() + 2, ' ') : line[i];
    std::cout << text << "\n";
  }
  std::cout << "volume: " << (volume.empty() ? "none" : volume) << "\n";
  if (server.age) {
    std::cout << "server versions: as fetched " << *server.age << " s ago\n";
  } else {
    std::cout << "server versions: unknown (no copy of the server's document; the next update "
                 "fetches one)\n";
  }
  std::cout << std::flush;
}

// The library's probe takes the lock for an instant and reads any failure to
// take it as "updating", including a lock file this user may not create. A lock
// file that does not exist is held by nobody (writers create it before they
// lock it and nothing removes it), so the tool answers that case itself.
bool NoLockFile(const std::string& fixed) {
  return access(SystemPath(fixed).c_str(), F_OK) != 0 && errno == ENOENT;
}

}  // namespace

int RunStatus(const Args& args) {
  Library lib;
  const std::vector<std::string> ids = lib.Databases(args.Operand(0));
  const std::string volume = lib.service->GetCurVolume();
  const ServerInfo server = ReadServerInfo(*lib.io);
  std::vector<Row> rows;
  for (const std::string& id : ids)
    rows.push_back(ReadRow(lib, server, id));
  if (args.Has("--json")) {
    PrintJson(volume, server, rows);
  } else {
    PrintTable(volume, server, rows);
  }
  return kExitOk;
}

int RunIsUpdating(const Args& args) {
  const std::string id = args.Operand(0);
  bool updating = false;
  try {
    Library lib;
    dataupdate::Checker checker(lib.service);
    if (id.empty()) {
      updating = !NoLockFile("/run/data_update/update_any.lock") && checker.IsAnyUpdating();
    } else {
      lib.RequireKnown(id);
      updating = !NoLockFile("/run/data_update/update_" + id + ".lock") && checker.IsUpdating(id);
    }
  } catch (const CliError&) {
    throw;
  } catch (const std::exception& e) {
    throw CliError(kExitCannotTell, std::string("cannot tell whether an update runs: ") + e.what());
  }
  const std::string subject = id.empty() ? "any database" : id;
  std::cout << subject << ": " << (updating ? "updating" : "not updating") << std::endl;
  return updating ? kExitOk : kExitFailed;
}

}  // namespace vesk::cli
