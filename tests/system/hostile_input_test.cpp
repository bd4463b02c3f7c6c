// Hostile input: signed diff packages whose index leaves the install directory
// or is malformed, and documents of the wrong shape, size or range. Each ends
// in a clear error or the fallback before anything outside is touched.
#include <gtest/gtest.h>
#include <limits.h>

#include <boost/filesystem.hpp>
#include <functional>

#include "dataupdate/project_lock.h"
#include "dataupdate/updater.h"
#include "package_craft.h"
#include "service_fixture.h"
#include "signing.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

class HostileInputTest : public ServiceTest {
 protected:
  // Signs a diff package to version 2 holding `index` and "new.txt" with the
  // repository's key and serves it.
  std::map<int, DiffInfo> CraftedDiff(const std::string& index,
                                      const std::string& manifest = "{}") {
    const std::string name = "crafted" + std::to_string(crafted_++) + ".pkg";
    WriteTarball(craft_ / "diff.tar",
                 {FileEntry("patch_infos.json", index), FileEntry("new.txt", "new")});
    auto key = vesk::publish::LoadPrivateKey(repo.key_dir() + "/private.pem");
    vesk::publish::SignArchive(craft_ / "diff.tar", repo.out_dir() + "/" + name, key.get(), 6,
                               DiffBinding("db1", 2, manifest));
    return {{2, DiffInfo(repo.BaseUrl() + "/" + name, 100)}};
  }

  TempDir craft_;
  int crafted_ = 0;
};

// Crafted diffs from 1 to 2, through the real archive reader: each is refused
// before anything is patched, the whole package is installed instead, and
// nothing beside the install directory is touched. The replacement checks
// the targets again after the pre-update plug-ins ran.
TEST_F(HostileInputTest, PatchIndexNamesThatLeaveTheInstallDirectoryAreRefused) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  repo.SetFile("db1", 1, "sub/table.txt", "table one\n");
  ASSERT_EQ(repo.Publish(), 0);
  const std::string prefix = Prefix("db1");
  const DatabaseStatus one = Updater().Update("db1", DatabaseStatus{-1, 0, {}}, repo.Remote("db1"),
                                              {}, volume, prefix, volume);
  const std::string manifest = sandbox.Path("/var/lib/data_update/db1/manifest");
  const std::string manifest_one = ReadFile(manifest);
  repo.CopyVersion("db1", 1, 2);
  repo.SetFile("db1", 2, "readme.txt", "two\n");
  ASSERT_EQ(repo.Publish(), 0);
  const std::string victim = sandbox / "victim.txt";
  const std::string outside = sandbox / "outside";
  const auto update = [&](const std::map<int, DiffInfo>& diffs) {
    log.Clear();
    WriteFile(manifest, manifest_one);  // each diff starts from release 1 again
    return Updater().Update("db1", one, repo.Remote("db1"), diffs, volume, prefix, volume);
  };
  const std::string delta_index = volume + "/@tmp/data_update/db1_delta_2/patch_infos.json";
  const std::pair<std::string, std::string> cases[] = {
      {R"({"/../../../../victim.txt": {"operation": "delete", "input_file": ""}})",
       "Invalid patch info for /../../../../victim.txt: empty, \".\" or \"..\" component in the "
       "name"},
      {R"({"/../../../../escape.txt": {"operation": "create", "input_file": "new.txt"}})",
       "Invalid patch info for /../../../../escape.txt: empty, \".\" or \"..\" component in the "
       "name"},
      {std::string(50000, '[') + "]", "Fail to decode: " + delta_index},
      // A link in the install directory leading out: the whole package, which
      // empties the directory (removing the link, not what it points to), is
      // installed instead.
      {R"({"/sub/table.txt": {"operation": "create", "input_file": "new.txt"}})",
       "Invalid patch info for /sub/table.txt: it leads outside the install directory through "
       "a link"},
  };
  ASSERT_EQ(fs::canonical(prefix + "/../../../.."), fs::canonical(sandbox.root()));
  for (const auto& [index, warning] : cases) {
    SCOPED_TRACE(warning);
    WriteFile(victim, "victim");
    fs::create_directories(outside);
    if (warning.find("through a link") != std::string::npos) {
      fs::remove_all(prefix + "/sub");
      fs::create_symlink(outside, prefix + "/sub");
    }
    EXPECT_EQ(update(CraftedDiff(index)).data_version, 2);
    EXPECT_EQ(log.Matching("Diff update fail"),
              std::vector<std::string>{"warning: updater.cpp:83 Diff update fail, try full "
                                       "update: " +
                                       warning});
    EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 2)), "");
    EXPECT_EQ(ReadFile(victim), "victim");
    EXPECT_FALSE(Exists(sandbox / "escape.txt"));
    EXPECT_TRUE(fs::is_empty(outside));
    const std::string tmp = volume + "/@tmp/data_update";
    EXPECT_TRUE(!fs::exists(tmp) || fs::is_empty(tmp));
  }

  // The same link made after the preparation, by the pre-update plug-in, to a
  // directory holding a file of that name: refused before anything is removed
  // or written.
  WriteFile(outside + "/table.txt", "not the database's");
  const std::string plugin =
      sandbox.Path("/usr/vesk/lib/plugins/database_autoupdate/version_change/10-link");
  WriteFile(plugin, "#!/bin/sh\n[ \"$1\" = 4 ] || exit 0\nrm -rf " + ShellQuote(prefix + "/sub") +
                        " && ln -s " + ShellQuote(outside) + " " + ShellQuote(prefix + "/sub") +
                        "\n");
  ASSERT_EQ(Shell("chmod +x " + ShellQuote(plugin)), 0);
  Json::Value release;  // what is installed, with the created file
  for (const auto& [name, content] : Snapshot(prefix))
    release[name]["size"] = static_cast<Json::UInt64>(content.size());
  release["sub/table.txt"]["size"] = 3;
  for (const std::string& name : release.getMemberNames())
    release[name]["sha384"] = std::string(96, '0');  // only sizes are checked before applying
  EXPECT_UPDATE_ERROR(
      update(CraftedDiff(R"({"/sub/table.txt": {"operation": "create", "input_file": "new.txt"}})",
                         release.toStyledString())),
      "Fail to diff update: Refused to write outside the install directory: " + prefix +
          "/sub/table.txt");
  EXPECT_EQ(ReadFile(outside + "/table.txt"), "not the database's");
}

// Database-info, status and configuration documents of the wrong shape, too
// deep or out of range, through the readers of the service.
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
    Json::Value info;
    Json::Reader().parse(good, info);
    Json::Reader().parse(value, info["db_list"]["db1"][key]);
    return info.toStyledString();
  };
  const std::string remote = "Invalid json object for RemoteInfo";
  const std::pair<std::string, std::string> cases[] = {
      {R"({"db_list": [1, 2]})", remote},  // a member of an array is read as missing
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

  // Configuration: a local file or section of the wrong shape is ignored in
  // favour of the default, and a set replaces it; a default of the wrong shape
  // is reported; numbers out of range read as absent.
  const std::string local_service = sandbox.Path("/usr/vesk/etc/data_update/data_update.conf");
  const std::string local_databases = sandbox.Path("/usr/vesk/etc/data_update/databases.conf");
  const std::string default_databases = sandbox.Path("/usr/share/data_update/databases.conf");
  for (const auto& [local, databases] :
       {std::pair<std::string, std::string>{R"({"config": "volume2"})", R"({"db1": "no keys"})"},
        {"[1, 2]", deep}}) {
    WriteFile(local_service, local);
    WriteFile(local_databases, databases);
    EXPECT_EQ(service.config->GetCurVolume(), volume);
    EXPECT_EQ(service.config->GetDatabaseIDs(), std::vector<std::string>{"db1"});
    service.update.UpdateProject("db1");
    EXPECT_TRUE(log.Contains("info: update.cpp:248 'db1' has been up to date"));
    service.config->SetCurVolume(volume);
    EXPECT_EQ(service.io->ReadJson(local_service)["config"]["cur_volume"], volume);
  }
  WriteFile(local_databases, R"({"db1": {"min_rsv_space_inbytes": 1e400, "auto_update": 1}})");
  EXPECT_EQ(service.config->GetDatabaseConfig("db1")->GetMinReservedSpaceInbytes(), 0u);
  EXPECT_TRUE(service.config->GetDatabaseConfig("db1")->GetScheduled());
  fs::remove(local_databases);
  WriteFile(default_databases, R"({"db1": [1]})");
  EXPECT_UPDATE_ERROR(service.config->GetDatabaseConfig("db1")->GetInstallPrefix(),
                      "section-key: 'db1'-'install_dest' not found");
  WriteFile(default_databases, "[\"db1\"]");
  EXPECT_UPDATE_ERROR(service.update.UpdateProject("db1"), "Fail to decode: " + default_databases);
  EXPECT_EQ(VESKDBUDGetFileLock("db1", 0), -2);
}

}  // namespace
