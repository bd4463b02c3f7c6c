// status and is-updating: what is installed, what the server offered when the
// document was last fetched, and whether an update runs. Nothing here
// downloads or changes a database.
#include <json/writer.h>

#include <iostream>
#include <optional>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "database_view.h"
#include "last_result.h"
#include "library.h"
#include "metrics.h"

namespace vesk::cli {
namespace {

using Row = DatabaseView;

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

}  // namespace

int RunStatus(const Args& args) {
  if (args.Has("--json") && args.Has("--metrics"))
    throw CliError(kExitUsage,
                   "status: give --json or --metrics, not both (see 'veskdbud "
                   "status --help')");
  Library lib;
  const std::vector<std::string> ids = lib.Databases(args.Operand(0));
  // What the table shows is one release, not a tree a killed run left half exchanged.
  dataupdate::FinishInterruptedWork();
  const std::string volume = lib.service->GetCurVolume();
  const ServerInfo server = ReadServerInfo(*lib.io);
  std::vector<Row> rows;
  for (const std::string& id : ids)
    rows.push_back(ReadDatabaseView(lib, server, id));
  if (args.Has("--metrics")) {
    std::cout << MetricsText(lib, rows) << std::flush;
  } else if (args.Has("--json")) {
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
    if (!id.empty())
      lib.RequireKnown(id);
    updating = IsUpdating(lib, id);
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
