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

// `shown`: the name as the message shows it (control bytes and "\" escaped,
// at most 200 bytes and then "...").
std::string Refused(const std::string& shown, const std::string& reason) {
  return "Diff update fail, try full update: Invalid patch info for " + shown + ": " + reason;
}

// `text` as a JSON string literal (a NUL byte as \u0000).
std::string Quoted(const std::string& text) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, Json::Value(text));
}

// Every regular file below `root` that is not below `inside`.
std::map<std::string, std::string> FilesOutside(const std::string& root,
                                                const std::string& inside) {
  std::map<std::string, std::string> files = Snapshot(root);
  const std::string skip = fs::path(inside).lexically_relative(root).string() + "/";
  for (auto it = files.begin(); it != files.end();)
    it = it->first.compare(0, skip.size(), skip) == 0 ? files.erase(it) : std::next(it);
  files.erase("var/lib/data_update/db1/manifest");  // the library's own record
  return files;
}

class HostileInputTest : public ServiceTest {
 protected:
  // Signs `entries` as a diff package with the repository's key and serves it.
  std::map<int, DiffInfo> CraftedDiff(int version, const std::vector<CraftEntry>& entries,
                                      const std::string& manifest = "{}") {
    const std::string name = "crafted" + std::to_string(crafted_++) + ".pkg";
    WriteTarball(craft_ / "diff.tar", entries);
    auto key = vesk::publish::LoadPrivateKey(repo.key_dir() + "/private.pem");
    vesk::publish::SignArchive(craft_ / "diff.tar", repo.out_dir() + "/" + name, key.get(), 6,
                               DiffBinding("db1", version, manifest));
    return {{version, DiffInfo(repo.BaseUrl() + "/" + name, 100)}};
  }

  TempDir craft_;
  int crafted_ = 0;
};

// Each crafted diff from 1 to 2 is refused before anything is patched, the
// whole package is installed instead, and nothing beside the install
// directory is removed, replaced, created or read.
TEST_F(HostileInputTest, PatchIndexNamesThatLeaveTheInstallDirectoryAreRefused) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  repo.SetFile("db1", 1, "readme.txt", "one\n");
  repo.SetFile("db1", 1, "sub/table.txt", "table one\n");
  repo.Sql("db1", 1, "items.db", "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT);");
  ASSERT_EQ(repo.Publish(), 0);
  const std::string prefix = Prefix("db1");
  DatabaseStatus one = Updater().Update("db1", DatabaseStatus{-1, 0, {}}, repo.Remote("db1"), {},
                                        volume, prefix, volume);
  // Each diff below starts from release 1 again, which its manifest vouches for.
  const std::string manifest = sandbox.Path("/var/lib/data_update/db1/manifest");
  const std::string manifest_one = ReadFile(manifest);
  repo.CopyVersion("db1", 1, 2);
  repo.SetFile("db1", 2, "readme.txt", "two\n");
  ASSERT_EQ(repo.Publish(), 0);

  // From the install directory, "/../../../.." is the sandbox's root.
  const std::string up = "/../../../..";
  ASSERT_EQ(fs::canonical(prefix + up), fs::canonical(sandbox.root()));
  const std::string victim = sandbox / "victim.txt";
  const std::string secret = sandbox / "secret.txt";
  const std::string delta_dir = volume + "/@tmp/data_update/db1_delta_2";
  const std::string long_component(NAME_MAX + 1, 'n');
  std::string long_path;
  while (long_path.size() <= PATH_MAX)
    long_path += "/dir";

  struct Case {
    std::string what;
    std::string index;  // patch_infos.json
    std::string warning;
  };
  const auto entry = [](const std::string& name, const std::string& operation,
                        const std::string& input) {
    return "{" + Quoted(name) + ": {\"operation\": " + Quoted(operation) +
           ", \"input_file\": " + Quoted(input) + "}}";
  };
  const std::string not_relative = "\"input_file\" must be a relative name inside the package";
  const std::string bad_component = "empty, \".\" or \"..\" component in the name";
  const std::vector<Case> cases{
      {"delete above the prefix", entry(up + "/victim.txt", "delete", ""),
       Refused(up + "/victim.txt", bad_component)},
      {"create above the prefix", entry(up + "/escape.txt", "create", "new.txt"),
       Refused(up + "/escape.txt", bad_component)},
      {"update above the prefix", entry(up + "/victim.txt", "update", "new.vcdiff"),
       Refused(up + "/victim.txt", bad_component)},
      {"no leading slash: a sibling of the prefix", entry("x", "create", "new.txt"),
       Refused("x", "the name must begin with \"/\"")},
      {"dot component", entry("/sub/./table.txt", "create", "new.txt"),
       Refused("/sub/./table.txt", bad_component)},
      {"empty component", entry("/sub//table.txt", "create", "new.txt"),
       Refused("/sub//table.txt", bad_component)},
      {"the prefix itself", entry("/", "delete", ""), Refused("/", bad_component)},
      {"trailing slash", entry("/sub/", "delete", ""), Refused("/sub/", bad_component)},
      {"NUL hiding a climb", entry(std::string("/ok\0", 4) + up + "/victim.txt", "delete", ""),
       Refused("/ok\\x00" + up + "/victim.txt", "NUL in the name")},
      {"component longer than NAME_MAX", entry("/" + long_component, "create", "new.txt"),
       Refused(("/" + long_component).substr(0, 200) + "...",
               "name longer than the system allows")},
      {"name longer than PATH_MAX", entry(long_path, "create", "new.txt"),
       Refused(long_path.substr(0, 200) + "...", "name longer than the system allows")},
      {"input above the package", entry("/readme.txt", "create", "../../../../../secret.txt"),
       Refused("/readme.txt", not_relative)},
      {"absolute input", entry("/readme.txt", "create", secret),
       Refused("/readme.txt", not_relative)},
      {"empty input", entry("/readme.txt", "create", ""), Refused("/readme.txt", not_relative)},
      {"input is a link", entry("/readme.txt", "create", "link.txt"),
       Refused("/readme.txt", "\"input_file\" is not a regular file in the package")},
      {"input is a directory", entry("/readme.txt", "create", "dir"),
       Refused("/readme.txt", "\"input_file\" is not a regular file in the package")},
      {"entry not an object", R"({"/readme.txt": "create"})",
       Refused("/readme.txt", "not an object")},
      {"operation missing", R"({"/readme.txt": {"input_file": "new.txt"}})",
       Refused("/readme.txt", "\"operation\" is not a string")},
      {"operation a number", R"({"/readme.txt": {"operation": 1, "input_file": "new.txt"}})",
       Refused("/readme.txt", "\"operation\" is not a string")},
      {"input missing", R"({"/readme.txt": {"operation": "delete"}})",
       Refused("/readme.txt", "\"input_file\" is not a string")},
      {"input an array", R"({"/readme.txt": {"operation": "create", "input_file": ["new.txt"]}})",
       Refused("/readme.txt", "\"input_file\" is not a string")},
      {"two names, one temporary file",
       R"({"/a.b": {"operation": "create", "input_file": "new.txt"},
           "/a_b": {"operation": "create", "input_file": "new.txt"}})",
       Refused("/a_b", "its temporary file is also that of /a.b")},
      {"SQL attaching a file outside", entry("/items.db", "update", "attach.sqlitediff"),
       "Diff update fail, try full update: Fail apply sql cmd: not authorized"},
      {"SQL vacuuming into a file outside", entry("/items.db", "update", "vacuum.sqlitediff"),
       "Diff update fail, try full update: Fail apply sql cmd: cannot VACUUM from within a "
       "transaction"},
      {"index an array", "[]",
       "Diff update fail, try full update: Invalid patch infos: " + delta_dir +
           "/patch_infos.json"},
      {"index a string", "\"/readme.txt\"",
       "Diff update fail, try full update: Invalid patch infos: " + delta_dir +
           "/patch_infos.json"},
      {"index nested deeper than the reader allows", std::string(50000, '[') + "]",
       "Diff update fail, try full update: Fail to decode: " + delta_dir + "/patch_infos.json"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    WriteFile(victim, "victim");
    WriteFile(secret, "secret");
    WriteFile(sandbox / "attached.db", "");  // SQLite attaches an existing file in a transaction
    fs::remove(sandbox / "escape.txt");
    const auto outside = FilesOutside(sandbox.root(), prefix);
    const auto diffs = CraftedDiff(
        2, {FileEntry("patch_infos.json", c.index), FileEntry("new.txt", "new"),
            FileEntry("new.vcdiff", "not a delta"), SymlinkEntry("link.txt", "new.txt"),
            DirEntry("dir"),
            FileEntry("attach.sqlitediff", "ATTACH DATABASE '" + (sandbox / "attached.db") +
                                               "' AS evil;\nCREATE TABLE evil.t(x);\n"),
            FileEntry("vacuum.sqlitediff", "VACUUM INTO '" + (sandbox / "vacuumed.db") + "';\n")});
    log.Clear();
    WriteFile(manifest, manifest_one);
    const DatabaseStatus two =
        Updater().Update("db1", one, repo.Remote("db1"), diffs, volume, prefix, volume);
    EXPECT_EQ(log.Matching("Diff update fail"),
              std::vector<std::string>{"warning: updater.cpp:83 " + c.warning});
    EXPECT_EQ(two.data_version, 2);
    EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 2)), "");
    EXPECT_TRUE(Exists(victim) && ReadFile(victim) == "victim") << "the file beside it was touched";
    EXPECT_FALSE(Exists(sandbox / "escape.txt"));
    EXPECT_EQ(FilesOutside(sandbox.root(), prefix), outside);
    const std::string tmp = volume + "/@tmp/data_update";
    EXPECT_TRUE(!fs::exists(tmp) || fs::is_empty(tmp));
  }

  // Names with odd bytes that stay inside are installed where they say.
  const std::string odd = "/odd \x01\t\"quoted\" back\\slash \xc3\xbf\n.txt";
  // The release a crafted diff leads to: what is installed, with `created`.
  const auto release_with = [&](const std::string& created) {
    Json::Value release;
    for (const auto& [name, content] : Snapshot(prefix))
      release[name]["size"] = static_cast<Json::UInt64>(content.size());
    release[created]["size"] = 3;
    for (const std::string& name : release.getMemberNames())
      release[name]["sha384"] = std::string(96, '0');  // only sizes are checked before applying
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    return Json::writeString(compact, release);
  };
  const auto diffs = CraftedDiff(
      2,
      {FileEntry("patch_infos.json", entry(odd, "create", "new.txt")), FileEntry("new.txt", "new")},
      release_with(odd.substr(1)));
  log.Clear();
  WriteFile(manifest, manifest_one);
  Updater().Update("db1", one, repo.Remote("db1"), diffs, volume, prefix, volume);
  EXPECT_EQ(log.Matching("Diff update fail"), std::vector<std::string>{});
  EXPECT_EQ(ReadFile(prefix + odd), "new");

  // A link in the install directory leading out: a diff writing below it is
  // refused, and the whole package, which empties the directory (removing the
  // link, not what it points to), is installed instead.
  const std::string outside = sandbox / "outside";
  fs::create_directories(outside);
  fs::remove_all(prefix + "/sub");
  fs::create_symlink(outside, prefix + "/sub");
  const auto below_link =
      CraftedDiff(2, {FileEntry("patch_infos.json", entry("/sub/table.txt", "create", "new.txt")),
                      FileEntry("new.txt", "new")});
  log.Clear();
  WriteFile(manifest, manifest_one);
  Updater().Update("db1", one, repo.Remote("db1"), below_link, volume, prefix, volume);
  EXPECT_EQ(
      log.Matching("Diff update fail"),
      std::vector<std::string>{"warning: updater.cpp:83 " + Refused("/sub/table.txt",
                                                                    "it leads outside the install "
                                                                    "directory through a link")});
  EXPECT_TRUE(fs::is_empty(outside));
  EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 2)), "");

  // The same link made after the preparation, by the pre-update plug-in, to a
  // directory holding a file of that name: the replacement checks again and
  // refuses before it removes or writes anything.
  WriteFile(outside + "/table.txt", "not the database's");
  const std::string plugin =
      sandbox.Path("/usr/vesk/lib/plugins/database_autoupdate/version_change/10-link");
  WriteFile(plugin, "#!/bin/sh\n[ \"$1\" = 4 ] || exit 0\nrm -rf " + ShellQuote(prefix + "/sub") +
                        " && ln -s " + ShellQuote(outside) + " " + ShellQuote(prefix + "/sub") +
                        "\n");
  ASSERT_EQ(Shell("chmod +x " + ShellQuote(plugin)), 0);
  WriteFile(manifest, manifest_one);
  const auto below_link_later =
      CraftedDiff(2,
                  {FileEntry("patch_infos.json", entry("/sub/table.txt", "create", "new.txt")),
                   FileEntry("new.txt", "new")},
                  release_with("sub/table.txt"));
  EXPECT_UPDATE_ERROR(
      Updater().Update("db1", one, repo.Remote("db1"), below_link_later, volume, prefix, volume),
      "Fail to diff update: Refused to write outside the install directory: " + prefix +
          "/sub/table.txt");
  EXPECT_EQ(ReadFile(outside + "/table.txt"), "not the database's");
}

// `depth` nested arrays around `inner`.
std::string Nested(size_t depth, const std::string& inner) {
  return std::string(depth, '[') + inner + std::string(depth, ']');
}

// Database-info, status and configuration documents of the wrong shape, too
// deep, too large or out of range, through every reader of each.
TEST_F(HostileInputTest, DocumentsOfTheWrongShapeSizeOrRangeFailClearly) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);
  Service service;
  service.update.UpdateProject("db1");
  const std::string installed = ReadFile(StatusPath("db1"));
  const std::string document = repo.out_dir() + "/database_info/v1";
  const std::string good = ReadFile(document);
  const Json::Value info = repo.Info();
  const auto with = [&info](const std::function<void(Json::Value&)>& change) {
    Json::Value copy = info;
    change(copy);
    return copy.toStyledString();
  };
  const std::string remote_invalid = "Invalid json object for RemoteInfo";
  const std::string diff_invalid = "Invalid json object for DiffInfo";
  const std::string undecodable = "Fail to decode: " + Cache() + ".tmp";
  std::string huge = "{\"db_list\": {";
  for (int i = 0; i < 60000; ++i)
    huge += "\"other" + std::to_string(i) + "\": {\"data_version\": \"1\", \"pad\": \"" +
            std::string(100, 'p') + "\"}, ";
  huge += "\"db1\": " + info["db_list"]["db1"].toStyledString() + "}}";

  struct Case {
    std::string what;
    std::string served;
    std::string error;  // "" when the update is to succeed
  };
  const std::vector<Case> cases{
      {"db_list an array", R"({"db_list": [1, 2]})", remote_invalid},
      {"entry a string", R"({"db_list": {"db1": "latest"}})", remote_invalid},
      {"entry deeply nested", R"({"db_list": {"db1": )" + Nested(900, "1") + "}}", remote_invalid},
      {"version too large",
       with([](Json::Value& v) { v["db_list"]["db1"]["data_version"] = "99999999999"; }),
       remote_invalid},
      {"version not a number",
       with([](Json::Value& v) { v["db_list"]["db1"]["data_version"] = "latest"; }),
       remote_invalid},
      {"version a number",
       with([](Json::Value& v) { v["db_list"]["db1"]["data_version"] = 7000001; }), remote_invalid},
      {"fetch time out of range",
       with([](Json::Value& v) { v["db_list"]["db1"]["last_fetch_time"] = 1e30; }), remote_invalid},
      {"deprecated a string",
       with([](Json::Value& v) { v["db_list"]["db1"]["deprecated"] = "yes"; }), remote_invalid},
      {"diff list an array of records", with([](Json::Value& v) {
         Json::Value list(Json::arrayValue);
         list.append(v["db_list"]["db1"]["diff_files"]["7000001"]);
         v["db_list"]["db1"]["diff_files"] = list;
       }),
       diff_invalid},
      {"diff version not a number", with([](Json::Value& v) {
         v["db_list"]["db1"]["diff_files"]["next"] = v["db_list"]["db1"]["diff_files"]["7000001"];
       }),
       diff_invalid},
      {"diff version too large", with([](Json::Value& v) {
         v["db_list"]["db1"]["diff_files"]["99999999999"] =
             v["db_list"]["db1"]["diff_files"]["7000001"];
       }),
       diff_invalid},
      {"nested deeper than the reader allows", Nested(100000, ""), undecodable},
      {"top level a number", "7000002", undecodable},
      {"huge, with a usable entry", huge, ""},
  };
  // Each served version is one the installed one is not behind, except the
  // huge one, which announces the same release: nothing to do.
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    WriteFile(document, c.served);
    SetAge(Cache(), 3601 + 60);
    log.Clear();
    if (c.error.empty()) {
      EXPECT_NO_THROW(service.update.UpdateProject("db1"));
      EXPECT_TRUE(log.Contains("info: update.cpp:248 'db1' has been up to date"));
    } else {
      EXPECT_UPDATE_ERROR(service.update.UpdateProject("db1"), c.error);
      EXPECT_TRUE(log.Contains("info: update.cpp:272 Update db1 fail: " + c.error));
    }
    EXPECT_EQ(ReadFile(StatusPath("db1")), installed);
  }
  WriteFile(document, good);
  SetAge(Cache(), 3601 + 60);

  // Status files: anything unreadable is a database to install again.
  const std::vector<std::pair<std::string, std::string>> statuses{
      {"version too large", R"({"data_version": "99999999999", "last_fetch_time": 0})"},
      {"version a number", R"({"data_version": 7000001, "last_fetch_time": 0})"},
      {"a file status a string",
       R"({"data_version": "7000001", "last_fetch_time": 0, "file_statuses": {"/a": "x"}})"},
      {"top level an array", "[1, 2, 3]"},
      {"cut off", R"({"data_version": "70)"},
      {"nested deeper than the reader allows", Nested(100000, "")},
  };
  for (const auto& [what, status] : statuses) {
    SCOPED_TRACE(what);
    WriteFile(StatusPath("db1"), status);
    log.Clear();
    EXPECT_EQ(service.info->GetDatabaseStatus("db1").data_version, -1);
    EXPECT_EQ(log.Matching("update.cpp:17").size(), 2u);
    EXPECT_TRUE(log.Contains(
        "warning: update.cpp:174 db1 version file gone or corrupted or in the first updating"));
    service.update.UpdateProject("db1");
    EXPECT_EQ(ReadFile(StatusPath("db1")), installed);
  }

  // Configuration: a local file or section of the wrong shape is ignored in
  // favour of the default; a default of the wrong shape is reported.
  const std::string local_service = sandbox.Path("/usr/vesk/etc/data_update/data_update.conf");
  const std::string local_databases = sandbox.Path("/usr/vesk/etc/data_update/databases.conf");
  const std::string default_databases = sandbox.Path("/usr/share/data_update/databases.conf");
  const std::vector<std::pair<std::string, std::string>> locals{
      {R"({"config": "volume2"})", R"({"db1": "no keys"})"},
      {"[1, 2]", "[1, 2]"},
      {"\"x\"", "\"x\""},
      {Nested(100000, ""), Nested(100000, "")},
  };
  for (const auto& [local, databases] : locals) {
    SCOPED_TRACE(local.substr(0, 20));
    WriteFile(local_service, local);
    WriteFile(local_databases, databases);
    EXPECT_EQ(service.config->GetCurVolume(), volume);
    EXPECT_EQ(service.config->GetDatabaseIDs(), std::vector<std::string>{"db1"});
    EXPECT_FALSE(service.checker.IsUpdating("db1"));
    const int fd = VESKDBUDGetFileLock("db1", 0);
    EXPECT_GE(fd, 0);
    VESKDBUDReleaseFileLock(fd);
    service.update.UpdateProject("db1");
    EXPECT_TRUE(log.Contains("info: update.cpp:248 'db1' has been up to date"));
    // A set replaces what held no keys.
    service.config->SetCurVolume(volume);
    EXPECT_EQ(service.io->ReadJson(local_service)["config"]["cur_volume"], volume);
  }
  fs::remove(local_databases);
  const std::string saved = ReadFile(default_databases);
  WriteFile(default_databases, R"({"db1": [1]})");
  EXPECT_UPDATE_ERROR(service.config->GetDatabaseConfig("db1")->GetInstallPrefix(),
                      "section-key: 'db1'-'install_dest' not found");
  WriteFile(default_databases, "[\"db1\"]");
  EXPECT_UPDATE_ERROR(service.config->GetDatabaseIDs(), "Fail to decode: " + default_databases);
  EXPECT_UPDATE_ERROR(service.update.UpdateProject("db1"), "Fail to decode: " + default_databases);
  EXPECT_EQ(VESKDBUDGetFileLock("db1", 0), -2);
  WriteFile(default_databases, saved);

  // Numbers out of range in the configuration read as absent.
  WriteFile(local_databases, R"({"db1": {"min_rsv_space_inbytes": 1e400, "auto_update": 1}})");
  EXPECT_EQ(service.config->GetDatabaseConfig("db1")->GetMinReservedSpaceInbytes(), 0u);
  EXPECT_TRUE(service.config->GetDatabaseConfig("db1")->GetScheduled());
}

}  // namespace
