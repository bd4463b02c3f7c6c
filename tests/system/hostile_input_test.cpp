// Hostile input: diff packages signed with the trusted key whose index names
// files outside the install directory or is malformed, and database-info,
// status and configuration documents of the wrong shape, size or range. Each
// must end in a clear UpdateError (or the documented fallback) before anything
// outside the install directory is read or written, and nothing may crash.
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

// A name as the error messages show it: control bytes and "\" escaped, at most
// 200 bytes of the name.
std::string Shown(const std::string& name) {
  std::string shown;
  for (size_t i = 0; i < name.size() && i < 200; ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (c < 0x20 || c == 0x7f || c == '\\') {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      shown += hex;
    } else {
      shown += static_cast<char>(c);
    }
  }
  return name.size() > 200 ? shown + "..." : shown;
}

std::string Refused(const std::string& name, const std::string& reason) {
  return "Diff update fail, try full update: Invalid patch info for " + Shown(name) + ": " + reason;
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
  return files;
}

class HostileInputTest : public ServiceTest {
 protected:
  // Signs `entries` as a diff package with the repository's key and serves it.
  std::map<int, DiffInfo> CraftedDiff(int version, const std::vector<CraftEntry>& entries) {
    const std::string name = "crafted" + std::to_string(crafted_++) + ".pkg";
    WriteTarball(craft_ / "diff.tar", entries);
    auto key = vesk::publish::LoadPrivateKey(repo.key_dir() + "/private.pem");
    vesk::publish::SignArchive(craft_ / "diff.tar", repo.out_dir() + "/" + name, key.get(), 6);
    return {{version, DiffInfo(repo.BaseUrl() + "/" + name, 100)}};
  }

  TempDir craft_;
  int crafted_ = 0;
};

// Versions 1 and 2 are published; version 1 is installed. Each crafted diff
// leading to 2 is refused before anything is patched, the engine falls back
// to the full package, the installed files end as version 2, and the files
// beside the install directory are neither removed, replaced, created nor read.
TEST_F(HostileInputTest, PatchIndexNamesThatLeaveTheInstallDirectoryAreRefused) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  repo.SetFile("db1", 1, "readme.txt", "one\n");
  repo.SetFile("db1", 1, "sub/table.txt", "table one\n");
  repo.Sql("db1", 1, "items.db", "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT);");
  ASSERT_EQ(repo.Publish(), 0);
  const std::string prefix = Prefix("db1");
  DatabaseStatus one = Updater().Update("db1", DatabaseStatus{-1, 0, {}}, repo.Remote("db1"), {},
                                        volume, prefix, volume);
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
       Refused(std::string("/ok\0", 4) + up + "/victim.txt", "NUL in the name")},
      {"component longer than NAME_MAX", entry("/" + long_component, "create", "new.txt"),
       Refused("/" + long_component, "name longer than the system allows")},
      {"name longer than PATH_MAX", entry(long_path, "create", "new.txt"),
       Refused(long_path, "name longer than the system allows")},
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
  const auto diffs = CraftedDiff(2, {FileEntry("patch_infos.json", entry(odd, "create", "new.txt")),
                                     FileEntry("new.txt", "new")});
  log.Clear();
  Updater().Update("db1", one, repo.Remote("db1"), diffs, volume, prefix, volume);
  EXPECT_EQ(log.Matching("Diff update fail"), std::vector<std::string>{});
  EXPECT_EQ(ReadFile(prefix + odd), "new");
}

}  // namespace
