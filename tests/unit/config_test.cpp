// Config: layered reads (local value wins only when usable), writes to the
// local file alone, section shadowing, and the JSON type rules. ServiceConfig
// and DatabaseConfig: which file each key comes from, the two swallowed
// defaults, the install-place tokens and the shadowing of database IDs. Real
// default and local files under a sandbox root.
#include "dataupdate/config.h"

#include <boost/filesystem.hpp>
#include <memory>
#include <stdexcept>

#include "dataupdate/error.h"
#include "forked_child.h"
#include "test_support.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

class ConfigTest : public ::testing::Test {
 protected:
  ConfigTest() : config(std::make_shared<IOUtils>()) { config.Init(default_path, local_path); }

  Sandbox sandbox;
  const std::string default_path = sandbox.Path("/usr/share/data_update/x.conf");
  const std::string local_path = sandbox.Path("/usr/vesk/etc/data_update/x.conf");
  Config config;
};

constexpr char kServiceDefault[] = "/usr/share/data_update/data_update.conf";
constexpr char kServiceLocal[] = "/usr/vesk/etc/data_update/data_update.conf";
constexpr char kDatabasesDefault[] = "/usr/share/data_update/databases.conf";
constexpr char kDatabasesLocal[] = "/usr/vesk/etc/data_update/databases.conf";

class ServiceConfigTest : public ::testing::Test {
 protected:
  ServiceConfigTest() {
    sandbox.Write(kServiceDefault, R"({"config": {"download_scheme": "https",
        "db_netloc": "db.example.test", "db_ver": "v2", "cur_volume": "/mnt/v1"}})");
    sandbox.Write(kDatabasesDefault, R"({
        "db1": {"format_version": "3", "install_dest": "%VOLUME%",
                "min_rsv_space_inbytes": 1024, "auto_update": false},
        "db2": {"format_version": "1", "install_dest": "%ROOTFS%"}})");
  }

  std::shared_ptr<DatabaseConfig> Database(const std::string& id) const {
    return service.GetDatabaseConfig(id);
  }

  Sandbox sandbox;
  ServiceConfig service{std::make_shared<Config>(std::make_shared<IOUtils>())};
};

}  // namespace

TEST_F(ConfigTest, ReadsTheDefaultUntilALocalValueIsSetAndRereadsTheFilesEachTime) {
  const std::string defaults = R"({"s": {"k": "default", "other": "d"}})";
  WriteFile(default_path, defaults);
  EXPECT_EQ(config.Get("s", "k"), "default");

  config.Set("s", "k", std::string("local"));
  EXPECT_EQ(config.Get("s", "k"), "local");
  EXPECT_EQ(config.Get("s", "other"), "d") << "keys the local file lacks come from the default";
  EXPECT_EQ(ReadFile(default_path), defaults);
  EXPECT_EQ(ReadFile(local_path), "{\n\t\"s\" : \n\t{\n\t\t\"k\" : \"local\"\n\t}\n}\n");
  EXPECT_TRUE(Exists(sandbox.Path("/run/data_update/config.lock")));

  WriteFile(default_path, R"({"s": {"other": "two"}})");
  EXPECT_EQ(config.Get("s", "other"), "two");
  WriteFile(local_path, R"({"s": {"other": "three"}})");
  EXPECT_EQ(config.Get("s", "other"), "three");

  const std::string other = sandbox.Path("/usr/share/data_update/other.conf");
  WriteFile(other, R"({"t": {"k": "second"}})");
  config.Init(other, local_path);
  EXPECT_EQ(config.Get("t", "k"), "second");
}

TEST_F(ConfigTest, UnusableLocalValuesFallBackToTheDefault) {
  WriteFile(local_path, R"({"s": {"k": 5, "flag": "true", "n": "12", "nul": null}})");
  WriteFile(default_path, R"({"s": {"k": "text", "flag": false, "n": 7, "nul": "d"}})");
  EXPECT_EQ(config.Get("s", "k"), "text");
  EXPECT_FALSE(config.GetAsBool("s", "flag"));
  EXPECT_EQ(config.GetAsUInt64("s", "n"), 7u);
  EXPECT_EQ(config.Get("s", "nul"), "d");

  WriteFile(default_path, R"({"s": {}})");
  EXPECT_UPDATE_ERROR(config.Get("s", "k"), "section-key: 's'-'k' not found");
  EXPECT_UPDATE_ERROR(config.GetAsBool("none", "k"), "section-key: 'none'-'k' not found");
}

TEST_F(ConfigTest, CorruptLocalFileIsIgnoredOnReadAndReplacedOnSet) {
  WriteFile(local_path, R"({"lost": {"a": "b"}, "s": )");
  WriteFile(default_path, R"({"s": {"k": "d"}, "t": {}})");
  EXPECT_EQ(config.Get("s", "k"), "d");
  EXPECT_EQ(config.GetSections(), (std::vector<std::string>{"s", "t"}));

  config.Set("n", "x", true);
  Json::Value expected;
  expected["n"]["x"] = true;
  EXPECT_EQ(IOUtils().ReadJson(local_path), expected);
}

TEST_F(ConfigTest, MissingDefaultFileIsReportedWithItsPath) {
  try {
    config.Get("s", "k");
    FAIL() << "no error";
  } catch (const UpdateError& e) {
    EXPECT_EQ(std::string(e.what()), "File not exist: " + default_path);
    EXPECT_EQ(e.code(), UpdateError::kFileNotExist);
  }
  EXPECT_UPDATE_ERROR(config.GetSections(), "File not exist: " + default_path);
  // A usable local value never needs the default file.
  WriteFile(local_path, R"({"s": {"k": "v"}})");
  EXPECT_EQ(config.Get("s", "k"), "v");
}

TEST_F(ConfigTest, TypesAreNeverConverted) {
  WriteFile(default_path, R"({"s": {"num": 12, "flag": true, "text": "12", "word": "true",
                                     "one": 1, "neg": -1, "zero": 0, "real": 5.0,
                                     "max": 4294967295, "over": 4294967296}})");
  EXPECT_UPDATE_ERROR(config.Get("s", "num"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.Get("s", "flag"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAsBool("s", "word"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAsBool("s", "one"), "Bad type conversion");
  EXPECT_UPDATE_ERROR(config.GetAs<bool>(Json::Value()), "Bad type conversion");
  // Unsigned reads stop at the JSON library's unsigned int range.
  for (const char* key : {"text", "neg", "flag", "over"}) {
    SCOPED_TRACE(key);
    EXPECT_UPDATE_ERROR(config.GetAsUInt64("s", key), "Bad type conversion");
  }
  EXPECT_EQ(config.GetAsUInt64("s", "zero"), 0u);
  EXPECT_EQ(config.GetAsUInt64("s", "num"), 12u);
  EXPECT_EQ(config.GetAsUInt64("s", "real"), 5u);
  EXPECT_EQ(config.GetAsUInt64("s", "max"), 4294967295u);
  EXPECT_TRUE(config.GetAsBool("s", "flag"));
}

TEST_F(ConfigTest, EachSetOverloadWritesItsJsonTypeToTheLocalFileOnly) {
  config.Set("s", "string", std::string("a"));
  config.Set("s", "chars", "b");
  config.Set("s", "count", 42ULL);
  config.Set("s", "flag", false);
  const Json::Value local = IOUtils().ReadJson(local_path)["s"];
  EXPECT_EQ(local["string"], Json::Value("a"));
  EXPECT_EQ(local["chars"], Json::Value("b"));
  EXPECT_TRUE(local["count"].isIntegral());
  EXPECT_EQ(local["count"].asUInt64(), 42u);
  EXPECT_EQ(local["flag"], Json::Value(false));
  EXPECT_FALSE(Exists(default_path));

  EXPECT_EQ(config.GetAsUInt64("s", "count"), 42u);
  config.Set("s", "count", "no longer a number");  // any type replaces any type
  EXPECT_EQ(config.Get("s", "count"), "no longer a number");
}

TEST_F(ConfigTest, FailedSetsNameTheKeyOrTouchNoFile) {
  const char* null_text = nullptr;
  EXPECT_THROW(config.Set("s", "k", null_text), std::logic_error);
  EXPECT_FALSE(Exists(local_path));
  EXPECT_FALSE(Exists(sandbox.Path("/run/data_update/config.lock")));
  // A plain file where the local file's directory should be.
  WriteFile(sandbox.Path("/usr/vesk/etc/data_update"), "not a directory");
  EXPECT_UPDATE_ERROR(config.Set("sec", "key", "v"), "Fail to set config sec:key");
}

TEST_F(ConfigTest, LocalSectionsShadowTheDefaultSections) {
  WriteFile(default_path, R"({"b": {}, "a": {"k": 1}})");
  EXPECT_EQ(config.GetSections(), (std::vector<std::string>{"a", "b"}));
  WriteFile(local_path, R"({"a": {"k": 2}})");
  EXPECT_EQ(config.GetSections(), (std::vector<std::string>{"a"}));
}

TEST_F(ServiceConfigTest, ServiceKeysComeFromDataUpdateConfAndTheVolumeIsSetLocally) {
  // An injected configuration object is pointed at the service files.
  auto config = std::make_shared<Config>(std::make_shared<IOUtils>());
  config->Init(sandbox.Path(kDatabasesDefault), sandbox.Path(kDatabasesLocal));
  ServiceConfig view(config);
  EXPECT_EQ(config->Get("config", "db_netloc"), "db.example.test");

  EXPECT_EQ(service.GetDownloadScheme(), "https");
  EXPECT_EQ(service.GetDBInfoDomainName(), "db.example.test");
  EXPECT_EQ(service.GetDBInfoVersion(), "v2");
  EXPECT_EQ(service.GetCurVolume(), "/mnt/v1");
  sandbox.Write(kServiceLocal, R"({"config": {"db_ver": "v3"}})");
  EXPECT_EQ(service.GetDBInfoVersion(), "v3");

  const std::string defaults = ReadFile(sandbox.Path(kServiceDefault));
  auto before = Database("db1");
  service.SetCurVolume("/mnt/v3");
  EXPECT_EQ(service.GetCurVolume(), "/mnt/v3");
  EXPECT_EQ(IOUtils().ReadJson(sandbox.Path(kServiceLocal))["config"]["cur_volume"], "/mnt/v3");
  EXPECT_EQ(ReadFile(sandbox.Path(kServiceDefault)), defaults);
  EXPECT_EQ(Database("db1")->GetRootDirectory(), "/mnt/v3");
  EXPECT_EQ(before->GetRootDirectory(), "/mnt/v1") << "a database view keeps its volume";

  sandbox.Write(kServiceLocal, "{}");
  sandbox.Write(kServiceDefault, R"({"config": {}})");
  EXPECT_UPDATE_ERROR(service.GetCurVolume(), "section-key: 'config'-'cur_volume' not found");
  EXPECT_UPDATE_ERROR(service.GetDatabaseConfig("db1"),
                      "section-key: 'config'-'cur_volume' not found");
}

TEST_F(ServiceConfigTest, DatabaseIDsAreTheSectionsOfTheDatabasesFileThatWins) {
  EXPECT_EQ(service.GetDatabaseIDs(), (std::vector<std::string>{"db1", "db2"}));
  EXPECT_NO_THROW(service.CheckSupported("db2"));
  EXPECT_UPDATE_ERROR(service.CheckSupported("DB2"), "Project DB2 not supported");
  EXPECT_UPDATE_ERROR(service.CheckSupported("config"), "Project config not supported");
  sandbox.Write(kDatabasesLocal, R"({"db1": {"auto_update": true}})");
  EXPECT_EQ(service.GetDatabaseIDs(), (std::vector<std::string>{"db1"}));
  EXPECT_UPDATE_ERROR(service.CheckSupported("db2"), "Project db2 not supported");
}

TEST_F(ServiceConfigTest, InstallTokensPlaceTheDatabaseAndOtherValuesAreInvalid) {
  auto on_volume = std::make_shared<DatabaseConfig>(
      "db1", "/mnt/v2", std::make_shared<Config>(std::make_shared<IOUtils>()));
  EXPECT_EQ(on_volume->GetInstallPrefix(), "/mnt/v2/@database/autoupdate/db1");
  EXPECT_EQ(on_volume->GetRootDirectory(), "/mnt/v2");
  EXPECT_EQ(Database("db2")->GetInstallPrefix(), sandbox.root() + "/var/db/db2");
  EXPECT_EQ(Database("db2")->GetRootDirectory(), sandbox.root() + "/");

  sandbox.Write(kDatabasesLocal, R"({"db1": {"install_dest": "%volume%"}, "db3": {}})");
  const std::string message = "Invalid value '%volume%' for '%s/@database/autoupdate' field";
  EXPECT_UPDATE_ERROR(Database("db1")->GetInstallPrefix(), message);
  EXPECT_UPDATE_ERROR(Database("db1")->GetRootDirectory(), message);
  EXPECT_UPDATE_ERROR(Database("db3")->GetInstallPrefix(),
                      "section-key: 'db3'-'install_dest' not found");
  // A view is made for any ID; its reads fail as the configuration does.
  auto unknown = Database("nope");
  ASSERT_NE(unknown, nullptr);
  EXPECT_UPDATE_ERROR(unknown->GetFormatVersion(),
                      "section-key: 'nope'-'format_version' not found");
}

TEST_F(ServiceConfigTest, ScheduledAndReservedSpaceSwallowUnreadableValues) {
  EXPECT_FALSE(Database("db1")->GetScheduled());
  EXPECT_TRUE(Database("db2")->GetScheduled()) << "no key";
  EXPECT_TRUE(Database("nope")->GetScheduled());
  EXPECT_EQ(Database("db1")->GetMinReservedSpaceInbytes(), 1024u);
  EXPECT_EQ(Database("db2")->GetMinReservedSpaceInbytes(), 0u);
  EXPECT_EQ(Database("db1")->GetFormatVersion(), "3");

  const std::string defaults = ReadFile(sandbox.Path(kDatabasesDefault));
  auto db = Database("db2");
  db->SetScheduled(false);
  EXPECT_FALSE(db->GetScheduled());
  EXPECT_EQ(IOUtils().ReadJson(sandbox.Path(kDatabasesLocal))["db2"]["auto_update"],
            Json::Value(false));
  EXPECT_EQ(ReadFile(sandbox.Path(kDatabasesDefault)), defaults);

  sandbox.Write(kDatabasesDefault, R"({"db1": {"auto_update": "false"}})");
  sandbox.Write(kDatabasesLocal, R"({"db1": {"auto_update": "false"}})");
  EXPECT_TRUE(Database("db1")->GetScheduled()) << "a text is not a boolean";

  boost::filesystem::remove(sandbox.Path(kDatabasesDefault));
  boost::filesystem::remove(sandbox.Path(kDatabasesLocal));
  EXPECT_EQ(Database("db1")->GetMinReservedSpaceInbytes(), 0u);
  EXPECT_TRUE(Database("db1")->GetScheduled());
  EXPECT_UPDATE_ERROR(Database("db1")->GetFormatVersion(),
                      "File not exist: " + sandbox.Path(kDatabasesDefault));
}
