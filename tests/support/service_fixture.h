// The service front as its callers wire it, over a sandbox whose configuration
// points at a repository published by veskdbud-publish. Versions have seven
// digits, more than the port: a forced install rewrites them in the link.
#pragma once

#include <json/writer.h>

#include <boost/filesystem.hpp>
#include <memory>
#include <string>
#include <vector>

#include "dataupdate/update.h"
#include "dataupdate/volume_handler.h"
#include "repo_fixture.h"

namespace vesk::test {

constexpr int kFirst = 7000001;

struct Service {
  std::shared_ptr<dataupdate::IOUtils> io = std::make_shared<dataupdate::IOUtils>();
  std::shared_ptr<dataupdate::ServiceConfig> config =
      std::make_shared<dataupdate::ServiceConfig>(std::make_shared<dataupdate::Config>(io));
  std::shared_ptr<dataupdate::InfoGetter> info =
      std::make_shared<dataupdate::InfoGetter>(io, config);
  dataupdate::Update update{std::make_shared<dataupdate::Updater>(), info, config};
  dataupdate::Checker checker{config};
  dataupdate::VolumeHandler volumes{config};
};

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override { InstallTrust(sandbox, repo); }

  std::string Prefix(const std::string& id) const { return volume + "/@database/autoupdate/" + id; }
  bool NoTemporaryFiles() const {
    const std::string tmp = volume + "/@tmp/data_update";
    return !boost::filesystem::exists(tmp) || boost::filesystem::is_empty(tmp);
  }
  std::string Cache() const { return sandbox.Path("/var/cache/data_update/database_info.json"); }
  std::string StatusPath(const std::string& id) const {
    return sandbox.Path("/var/lib/data_update/" + id + "/version.json");
  }
  // The status file as written; null when there is none.
  Json::Value Status(const std::string& id) const {
    return Exists(StatusPath(id)) ? ParseJson(ReadFile(StatusPath(id))) : Json::Value();
  }
  // Version `kFirst + n` of `id`: a text file naming the release, 32 KiB that
  // do not compress with one byte changed per release (so the diff package is
  // far smaller than the full one and is announced), and a growing SQLite table.
  void Release(const std::string& id, int n) {
    const int version = kFirst + n;
    if (n > 0)
      repo.CopyVersion(id, version - 1, version);
    repo.SetFile(id, version, "readme.txt", id + " release " + std::to_string(n) + "\n");
    std::string table = Pseudorandom(32 << 10, 1);
    table[n] = 'x';
    repo.SetFile(id, version, "tables/table.bin", table);
    repo.Sql(id, version, "items.db",
             (n == 0 ? "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT);" : "") +
                 std::string("INSERT INTO items(name) VALUES('") + id + " " + std::to_string(n) +
                 "');");
  }

  Sandbox sandbox;
  Repo repo;
  LogCapture log;
  std::string volume = sandbox.volume();
};

}  // namespace vesk::test
