// The server's documents and the status files of the wrong shape, too deep or
// out of range: a clear error or a reinstall, never a changed installation.
#include <gtest/gtest.h>

#include "service_fixture.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

using HostileInputTest = ServiceTest;

TEST_F(HostileInputTest, DocumentsOfTheWrongShapeSizeOrRangeFailClearly) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);
  Service service;
  service.update.UpdateProject("db1");
  const std::string installed = ReadFile(StatusPath("db1"));
  const std::string document = repo.out_dir() + "/database_info/v1";
  const std::string good = ReadFile(document);
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const auto with = [&good](const std::string& key, const std::string& value) {
    Json::Value info = ParseJson(good);
    info["db_list"]["db1"][key] = ParseJson(value);
    return info.toStyledString();
  };
  const std::string remote = "Invalid json object for RemoteInfo";
  const std::pair<std::string, std::string> cases[] = {
      {R"({"db_list": [1, 2]})", remote},  // a member of an array is read as missing
      {R"({"db_list": {"db1": "latest"}})", remote},
      {with("data_version", R"("99999999999")"), remote},  // out_of_range, mapped
      {with("diff_files", R"({"next": {"download_link": "u", "file_size": 1}})"),
       "Invalid json object for DiffInfo"},
      {deep, "Fail to decode: " + Cache() + ".tmp"},
  };
  for (const auto& [served, error] : cases) {
    SCOPED_TRACE(served.substr(0, 60));
    WriteFile(document, served);
    SetAge(Cache(), 3601 + 60);
    log.Clear();
    EXPECT_UPDATE_ERROR(service.update.UpdateProject("db1"), error);
    EXPECT_TRUE(log.Contains("info: update.cpp:272 Update db1 fail: " + error));
    EXPECT_EQ(ReadFile(StatusPath("db1")), installed);
  }
  WriteFile(document, good);
  SetAge(Cache(), 3601 + 60);

  // Status files: anything unreadable is a database to install again.
  for (const std::string& status :
       {std::string(R"({"data_version": "99999999999", "last_fetch_time": 0})"), deep}) {
    WriteFile(StatusPath("db1"), status);
    log.Clear();
    EXPECT_EQ(service.info->GetDatabaseStatus("db1").data_version, -1);
    EXPECT_TRUE(log.Contains(
        "warning: update.cpp:174 db1 version file gone or corrupted or in the first updating"));
    service.update.UpdateProject("db1");
    EXPECT_EQ(ReadFile(StatusPath("db1")), installed);
  }
}

}  // namespace
