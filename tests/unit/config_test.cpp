// Config's layers, types and locked writes; ServiceConfig's and DatabaseConfig's files.
#include "dataupdate/config.h"

#include <boost/filesystem.hpp>

#include "dataupdate/error.h"
#include "forked_child.h"
#include "test_support.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

constexpr char kServiceDefault[] = "/usr/share/data_update/data_update.conf";
constexpr char kServiceLocal[] = "/usr/vesk/etc/data_update/data_update.conf";

class ConfigTest : public ::testing::Test {
 protected:
  ConfigTest() {
    config.Init(default_path, local_path);
    sandbox.Write(kServiceDefault, R"({"config": {"download_scheme": "https",
        "db_netloc": "db.example.test", "db_ver": "v2", "cur_volume": "/mnt/v1"}})");
    sandbox.Write("/usr/share/data_update/databases.conf", R"({
        "db1": {"format_version": "3", "install_dest": "%VOLUME%",
                "min_rsv_space_inbytes": 1024, "auto_update": false},
        "db2": {"format_version": "1", "install_dest": "%ROOTFS%"}})");
  }
  std::shared_ptr<DatabaseConfig> Database(const std::string& id) const {
    return service.GetDatabaseConfig(id);
  }

  Sandbox sandbox;
  const std::string default_path = sandbox.Path("/usr/share/data_update/x.conf");
  const std::string local_path = sandbox.Path("/usr/vesk/etc/data_update/x.conf");
  Config config{std::make_shared<IOUtils>()};
  ServiceConfig service{std::make_shared<Config>(std::make_shared<IOUtils>())};
};

}  // namespace

TEST_F(ConfigTest, EachReadTakesTheUsableLocalValueElseTheDefaultsAndConvertsNoType) {
  struct Row {
    const char* local;     // nullptr: no local file
    const char* defaults;  // nullptr: no default file
    char getter;           // 's' Get, 'u' GetAsUInt64, 'b' GetAsBool
    std::string want;      // the value, or "!" and the UpdateError's message
  };
  const std::string missing = "!File not exist: " + default_path;
  const std::string bad = "!Bad type conversion";
  const Row rows[] = {
      {R"({"s": {"k": "local"}})", R"({"s": {"k": "default"}})", 's', "local"},
      {R"({"s": {"o": "local"}})", R"({"s": {"k": "d"}})", 's', "d"},
      {R"({"s": {"k": 5}})", R"({"s": {"k": "text"}})", 's', "text"},
      {R"({"s": {"k": "true"}})", R"({"s": {"k": false}})", 'b', "false"},
      {R"({"s": {"k": "12"}})", R"({"s": {"k": 7}})", 'u', "7"},
      {R"({"lost": {"a": "b"}, "s": )", R"({"s": {"k": "d"}})", 's', "d"},
      {R"([{"s": {"k": "l"}}])", R"({"s": {"k": "d"}})", 's', "d"},
      {nullptr, R"({"s": {}})", 's', "!section-key: 's'-'k' not found"},
      {nullptr, nullptr, 's', missing},
      {R"({"s": {"k": 5}})", nullptr, 's', missing},
      {R"({"s": {"k": "v"}})", nullptr, 's', "v"},
      {nullptr, R"({"s": {"k": 12}})", 's', bad},
      {nullptr, R"({"s": {"k": "true"}})", 'b', bad},
      {nullptr, R"({"s": {"k": true}})", 'b', "true"},
      {nullptr, R"({"s": {"k": -1}})", 'u', bad},
      {nullptr, R"({"s": {"k": 4294967296}})", 'u', bad},
      {nullptr, R"({"s": {"k": 4294967295}})", 'u', "4294967295"},
      {nullptr, R"({"s": {"k": 5.0}})", 'u', "5"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.local ? row.local : "-") + " | " +
                 (row.defaults ? row.defaults : "-"));
    boost::filesystem::remove(local_path);
    boost::filesystem::remove(default_path);
    if (row.local != nullptr)
      WriteFile(local_path, row.local);
    if (row.defaults != nullptr)
      WriteFile(default_path, row.defaults);
    std::string got;
    try {
      got = row.getter == 's'   ? config.Get("s", "k")
            : row.getter == 'u' ? std::to_string(config.GetAsUInt64("s", "k"))
                                : (config.GetAsBool("s", "k") ? "true" : "false");
    } catch (const UpdateError& e) {
      got = std::string("!") + e.what();
    }
    EXPECT_EQ(got, row.want);
  }
}

TEST_F(ConfigTest, SetWritesItsTypeToTheLocalFileAloneUnderTheLock) {
  const std::string defaults = R"({"s": {"k": "default"}, "t": {}})";
  WriteFile(default_path, defaults);
  WriteFile(local_path, R"({"lost": {"a": "b"}, "s": )");
  EXPECT_EQ(config.GetSections(), (std::vector<std::string>{"s", "t"}));
  config.Set("s", "k", std::string("local"));  // a corrupt local file is replaced
  EXPECT_EQ(ReadFile(local_path), "{\n\t\"s\" : \n\t{\n\t\t\"k\" : \"local\"\n\t}\n}\n");
  EXPECT_EQ(config.GetSections(), (std::vector<std::string>{"s"})) << "local sections shadow";
  EXPECT_TRUE(Exists(sandbox.Path("/run/data_update/config.lock")));
  config.Set("s", "chars", "b");
  config.Set("s", "count", 42ULL);
  config.Set("s", "flag", false);
  const Json::Value local = IOUtils().ReadJson(local_path)["s"];
  EXPECT_TRUE(local["chars"] == "b" && local["flag"] == false && local["count"].isIntegral() &&
              local["count"].asUInt64() == 42u);
  EXPECT_EQ(ReadFile(default_path), defaults);

  boost::filesystem::remove_all(sandbox.Path("/usr/vesk/etc/data_update"));
  WriteFile(sandbox.Path("/usr/vesk/etc/data_update"), "not a directory");
  EXPECT_UPDATE_ERROR(config.Set("sec", "key", "v"), "Fail to set config sec:key");
}

TEST_F(ConfigTest, ServiceKeysVolumeAndDatabaseIDsComeFromTheirFiles) {
  EXPECT_EQ(service.GetDatabaseIDs(), (std::vector<std::string>{"db1", "db2"}));
  sandbox.Write("/usr/vesk/etc/data_update/databases.conf", R"({"db1": {"auto_update": true}})");
  EXPECT_EQ(service.GetDatabaseIDs(), (std::vector<std::string>{"db1"}));
  EXPECT_UPDATE_ERROR(service.CheckSupported("db2"), "Project db2 not supported");
  EXPECT_EQ(service.GetDownloadScheme(), "https");
  EXPECT_EQ(service.GetDBInfoDomainName(), "db.example.test");
  sandbox.Write(kServiceLocal, R"({"config": {"db_ver": "v3"}})");
  EXPECT_EQ(service.GetDBInfoVersion(), "v3");

  auto before = Database("db1");
  service.SetCurVolume("/mnt/v3");
  EXPECT_EQ(IOUtils().ReadJson(sandbox.Path(kServiceLocal))["config"]["cur_volume"], "/mnt/v3");
  EXPECT_EQ(Database("db1")->GetRootDirectory(), "/mnt/v3");
  EXPECT_EQ(before->GetRootDirectory(), "/mnt/v1") << "a database view keeps its volume";

  sandbox.Write(kServiceLocal, "{}");
  sandbox.Write(kServiceDefault, R"({"config": {}})");
  EXPECT_UPDATE_ERROR(service.GetDatabaseConfig("db1"),
                      "section-key: 'config'-'cur_volume' not found");
}
