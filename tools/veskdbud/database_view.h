// What the tool shows of each database without downloading or changing
// anything: the installed version, the server's version as last fetched, the
// recorded last result and whether an update runs. `status` and the metrics
// read it the same way.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "library.h"

namespace vesk::cli {

struct ServerInfo {
  Json::Value document;          // null when there is no readable cached copy
  std::optional<long long> age;  // seconds since it was fetched
};

struct DatabaseView {
  std::string id;
  int installed = -1;
  std::optional<int> server;
  bool scheduled = true;
  std::optional<std::string> install_directory;
  Json::Value last_result;
};

// The library's cached copy of the server's database-info document.
ServerInfo ReadServerInfo(const dataupdate::IOUtils& io);

DatabaseView ReadDatabaseView(const Library& lib, const ServerInfo& server, const std::string& id);

// Whether an update, fix or forced install of `id` ("" for any) runs; throws
// when the lock cannot be probed.
bool IsUpdating(const Library& lib, const std::string& id);

}  // namespace vesk::cli
