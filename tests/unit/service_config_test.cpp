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
using vesk::test::ReadFile;
using vesk::test::Sandbox;

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

TEST_F(ServiceConfigTest, ServiceKeysComeFromDataUpdateConf) {
  EXPECT_EQ(service.GetDownloadScheme(), "https");
  EXPECT_EQ(service.GetDBInfoDomainName(), "db.example.test");
  EXPECT_EQ(service.GetDBInfoVersion(), "v2");
  EXPECT_EQ(service.GetCurVolume(), "/mnt/v1");
  sandbox.Write(kServiceLocal, R"({"config": {"db_ver": "v3"}})");
  EXPECT_EQ(service.GetDBInfoVersion(), "v3");
}

TEST_F(ServiceConfigTest, InjectedConfigIsPointedAtTheServiceFiles) {
  auto config = std::make_shared<Config>(std::make_shared<IOUtils>());
  config->Init(sandbox.Path(kDatabasesDefault), sandbox.Path(kDatabasesLocal));
  ServiceConfig view(config);
  EXPECT_EQ(config->Get("config", "db_netloc"), "db.example.test");
}

TEST_F(ServiceConfigTest, MissingServiceKeyIsNotFound) {
  sandbox.Write(kServiceDefault, R"({"config": {}})");
  EXPECT_UPDATE_ERROR(service.GetCurVolume(), "section-key: 'config'-'cur_volume' not found");
  EXPECT_UPDATE_ERROR(service.GetDatabaseConfig("db1"),
                      "section-key: 'config'-'cur_volume' not found");
}

TEST_F(ServiceConfigTest, SetCurVolumeWritesTheLocalServiceFile) {
  const std::string defaults = ReadFile(sandbox.Path(kServiceDefault));
  auto before = Database("db1");
  service.SetCurVolume("/mnt/v3");
  EXPECT_EQ(service.GetCurVolume(), "/mnt/v3");
  EXPECT_EQ(IOUtils().ReadJson(sandbox.Path(kServiceLocal))["config"]["cur_volume"], "/mnt/v3");
  EXPECT_EQ(ReadFile(sandbox.Path(kServiceDefault)), defaults);
  EXPECT_EQ(Database("db1")->GetRootDirectory(), "/mnt/v3");
  EXPECT_EQ(before->GetRootDirectory(), "/mnt/v1") << "a database view keeps its volume";
}

TEST_F(ServiceConfigTest, DatabaseIDsAreTheSectionsOfDatabasesConf) {
  EXPECT_EQ(service.GetDatabaseIDs(), (std::vector<std::string>{"db1", "db2"}));
  EXPECT_NO_THROW(service.CheckSupported("db2"));
  EXPECT_UPDATE_ERROR(service.CheckSupported("DB2"), "Project DB2 not supported");
  EXPECT_UPDATE_ERROR(service.CheckSupported("config"), "Project config not supported");
}

TEST_F(ServiceConfigTest, LocalDatabasesConfShadowsTheDefaultIDs) {
  sandbox.Write(kDatabasesLocal, R"({"db1": {"auto_update": true}})");
  EXPECT_EQ(service.GetDatabaseIDs(), (std::vector<std::string>{"db1"}));
  EXPECT_UPDATE_ERROR(service.CheckSupported("db2"), "Project db2 not supported");
}

TEST_F(ServiceConfigTest, DatabaseConfigIsMadeForAnyID) {
  auto unknown = Database("nope");
  ASSERT_NE(unknown, nullptr);
  EXPECT_TRUE(unknown->GetScheduled());
  EXPECT_UPDATE_ERROR(unknown->GetFormatVersion(),
                      "section-key: 'nope'-'format_version' not found");
}

TEST_F(ServiceConfigTest, VolumePlacementIsBelowTheVolumeAndNotSandboxed) {
  auto db = std::make_shared<DatabaseConfig>("db1", "/mnt/v2",
                                             std::make_shared<Config>(std::make_shared<IOUtils>()));
  EXPECT_EQ(db->GetInstallPrefix(), "/mnt/v2/@database/autoupdate/db1");
  EXPECT_EQ(db->GetRootDirectory(), "/mnt/v2");
}

TEST_F(ServiceConfigTest, RootfsPlacementIsResolvedBelowTheRoot) {
  auto db = Database("db2");
  EXPECT_EQ(db->GetInstallPrefix(), sandbox.root() + "/var/db/db2");
  EXPECT_EQ(db->GetRootDirectory(), sandbox.root() + "/");
}

TEST_F(ServiceConfigTest, OtherPlacementValuesAreInvalid) {
  sandbox.Write(kDatabasesLocal, R"({"db1": {"install_dest": "%volume%"}, "db3": {}})");
  auto db = Database("db1");
  const std::string message = "Invalid value '%volume%' for '%s/@database/autoupdate' field";
  EXPECT_UPDATE_ERROR(db->GetInstallPrefix(), message);
  EXPECT_UPDATE_ERROR(db->GetRootDirectory(), message);
  EXPECT_UPDATE_ERROR(Database("db3")->GetInstallPrefix(),
                      "section-key: 'db3'-'install_dest' not found");
}

TEST_F(ServiceConfigTest, ScheduledUnlessTheDatabaseSaysFalse) {
  EXPECT_FALSE(Database("db1")->GetScheduled());
  EXPECT_TRUE(Database("db2")->GetScheduled()) << "no key";
  sandbox.Write(kDatabasesDefault, R"({"db1": {"auto_update": "false"}})");
  sandbox.Write(kDatabasesLocal, R"({"db1": {"auto_update": "false"}})");
  EXPECT_TRUE(Database("db1")->GetScheduled()) << "a text is not a boolean";
}

TEST_F(ServiceConfigTest, SetScheduledWritesABooleanToTheLocalFile) {
  const std::string defaults = ReadFile(sandbox.Path(kDatabasesDefault));
  auto db = Database("db2");
  db->SetScheduled(false);
  EXPECT_FALSE(db->GetScheduled());
  EXPECT_EQ(IOUtils().ReadJson(sandbox.Path(kDatabasesLocal))["db2"]["auto_update"],
            Json::Value(false));
  EXPECT_EQ(ReadFile(sandbox.Path(kDatabasesDefault)), defaults);
}

TEST_F(ServiceConfigTest, ReservedSpaceIsZeroWhenUnreadable) {
  EXPECT_EQ(Database("db1")->GetMinReservedSpaceInbytes(), 1024u);
  EXPECT_EQ(Database("db2")->GetMinReservedSpaceInbytes(), 0u);
  boost::filesystem::remove(sandbox.Path(kDatabasesDefault));
  EXPECT_EQ(Database("db1")->GetMinReservedSpaceInbytes(), 0u);
  EXPECT_TRUE(Database("db1")->GetScheduled());
}

TEST_F(ServiceConfigTest, FormatVersionErrorsPropagate) {
  EXPECT_EQ(Database("db1")->GetFormatVersion(), "3");
  boost::filesystem::remove(sandbox.Path(kDatabasesDefault));
  EXPECT_UPDATE_ERROR(Database("db1")->GetFormatVersion(),
                      "File not exist: " + sandbox.Path(kDatabasesDefault));
}
