// ServiceConfig and DatabaseConfig over real data_update.conf and databases.conf
// files in a sandbox root: which file each key comes from, the two swallowed
// defaults, the install-place tokens and the shadowing of database IDs.
#include "dataupdate/config.h"

#include <boost/filesystem.hpp>
#include <memory>

#include "dataupdate/error.h"
#include "forked_child.h"
#include "test_support.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

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
