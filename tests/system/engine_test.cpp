// The update engine end to end: packages made by veskdbud-publish, served on
// 127.0.0.1, fetched by wget, verified and extracted through the platform,
// diffs applied by the real decoder and SQLite.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <functional>

#include "dataupdate/strategy.h"
#include "dataupdate/updater.h"
#include "package_craft.h"
#include "service_fixture.h"
#include "signing.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

// Rows `from` to `to` of "items".
std::string Rows(int from, int to) {
  return "WITH RECURSIVE n(i) AS (SELECT " + std::to_string(from) + " UNION ALL SELECT i + 1 " +
         "FROM n WHERE i < " + std::to_string(to) + ") INSERT INTO items SELECT i, 'i' FROM n;";
}

const DatabaseStatus kNever{-1, 0, {}};

class EngineTest : public ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  }

  DatabaseStatus UpdateTo(const DatabaseStatus& status) {
    return Updater().Update("db1", status, repo.Remote("db1"), repo.Diffs("db1"), volume, prefix,
                            volume);
  }

  // A diff package to `version` holding `index` and "new.txt", signed with
  // the repository's key and served.
  DiffInfo Crafted(int version, const std::string& index, const std::string& manifest = "{}") {
    const std::string name = "crafted" + std::to_string(version) + ".pkg";
    WriteTarball(sandbox / "diff.tar",
                 {FileEntry("patch_infos.json", index), FileEntry("new.txt", "new")});
    auto key = vesk::publish::LoadPrivateKey(repo.key_dir() + "/private.pem");
    vesk::publish::SignArchive(sandbox / "diff.tar", repo.out_dir() + "/" + name, key.get(), 6,
                               R"({"database":"db1","kind":"diff","from":)" +
                                   std::to_string(version - 1) + R"(,"manifest":)" + manifest +
                                   R"(,"version":)" + std::to_string(version) + "}");
    return DiffInfo(repo.BaseUrl() + "/" + name, 100);
  }

  std::string prefix = Prefix("db1");
};

// A chain of diffs ends in the release; every failure (crafted diffs through
// the real archive reader too) falls back to the whole package, which replaces
// whatever the directory held, with one warning and nothing outside touched.
TEST_F(EngineTest, DiffChainOrItsFallbackEndsInTheRelease) {
  repo.SetFile("db1", 1, "readme.txt", "version one\n");
  repo.SetFile("db1", 1, "nested/deeper/table.bin", std::string(5000, 'a'));
  // Unchanged and incompressible: the diffs stay well under half the full
  // package, whatever the archives' time stamps do to their compression.
  repo.SetFile("db1", 1, "blob.bin", Pseudorandom(16 << 10, 3));
  repo.Sql("db1", 1, "data/items.db",
           "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT);" + Rows(1, 200));
  // Versions 2 and 3: a file changed in consecutive versions, one created then
  // deleted, SQL with values over several lines (the publisher puts each
  // statement on one) and an index, a one-byte binary change.
  repo.CopyVersion("db1", 1, 2);
  repo.SetFile("db1", 2, "readme.txt", "version two\n");
  repo.SetFile("db1", 2, "extra/new.txt", "created in two\n");
  repo.Sql("db1", 2, "data/items.db",
           "UPDATE items SET name = 'it''s' || char(10) || 'changed' || "
           "char(13) || char(10) "
           "WHERE id % 10 = 0;");
  repo.CopyVersion("db1", 2, 3);
  repo.SetFile("db1", 3, "readme.txt", "version three, longer than before\n");
  fs::remove(repo.SourceDir("db1", 3) + "/extra/new.txt");
  repo.Sql("db1", 3, "data/items.db",
           Rows(201, 260) + "DELETE FROM items WHERE id < 5; CREATE INDEX names ON items(name);");
  std::string table(5000, 'a');
  table[100] = 'b';
  repo.SetFile("db1", 3, "nested/deeper/table.bin", table);
  ASSERT_EQ(repo.Publish(), 0);
  const RemoteInfo one(1, 0, false, repo.BaseUrl() + "/db1/v1/full.pkg");
  const std::string outside = sandbox / "outside";
  fs::create_directories(outside);
  struct Case {
    std::string warning;  // "" for none
    std::function<void(std::map<int, DiffInfo>&)> damage;
  };
  const Case cases[] = {
      {"", [](auto&) {}},
      {"No sufficient diff patched", [](auto& diffs) { diffs.erase(2); }},
      {"Fail apply sql cmd: ",  // a local row where version 3 inserts one
       [&](auto&) {
         Shell("sqlite3 " + prefix + "/data/items.db 'INSERT INTO items VALUES(230, 0)'");
       }},
      {"Diff chain does not lead to the published release: stray.txt is not in the release",
       [&](auto&) { WriteFile(prefix + "/stray.txt", "not published"); }},
      {"Diff chain does not lead to the published release: blob.bin is missing",
       [&](auto&) { fs::remove(prefix + "/blob.bin"); }},
      {"Fail to apply vcdiff on ",
       [&](auto&) {
         fs::remove(sandbox / "usr/vesk/sbin/veskdbudvcdiff");
         fs::create_symlink("/bin/false", sandbox / "usr/vesk/sbin/veskdbudvcdiff");
       }},
      {"Fail to decode: " + volume + "/@tmp/data_update/db1_delta_2/patch_infos.json",
       [&](auto& diffs) { diffs[2] = Crafted(2, std::string(50000, '[') + "]"); }},
      {"Invalid patch info for /nested/x: it leads outside the install directory through a link",
       [&](auto& diffs) {
         fs::remove_all(prefix + "/nested");
         fs::create_symlink(outside, prefix + "/nested");
         diffs[2] =
             Crafted(2, R"({"/nested/x": {"operation": "create", "input_file": "new.txt"}})");
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.warning);
    WriteFile(prefix + "/stale/inner/x", "not in the release");
    Updater().Update("db1", kNever, one, {}, volume, prefix, volume);
    ASSERT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 1)), "");
    auto diffs = repo.Diffs("db1");
    c.damage(diffs);
    log.Clear();
    const DatabaseStatus status = Updater().Update(
        "db1", DatabaseStatus{1, 0, {}}, repo.Remote("db1"), diffs, volume, prefix, volume);
    const auto warnings = log.Matching("Diff update fail");
    EXPECT_EQ(warnings.size(), c.warning.empty() ? 0u : 1u);
    for (const std::string& line : warnings)
      EXPECT_EQ(
          line.rfind("warning: updater.cpp:83 Diff update fail, try full update: " + c.warning, 0),
          0u)
          << line;
    EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 3), true), "");
    EXPECT_EQ(status.data_version, 3);
    EXPECT_TRUE(CheckStatus(status.file_statuses, prefix));
    EXPECT_TRUE(NoTemporaryFiles());
    EXPECT_TRUE(fs::is_empty(outside));
  }

  // The same link made after the preparation, by the pre-update plug-in, to a
  // directory holding a file of that name: the replacement checks again and
  // refuses before it removes or writes anything.
  WriteFile(outside + "/x", "not the database's");
  const std::string plugin =
      sandbox / "usr/vesk/lib/plugins/database_autoupdate/version_change/10-link";
  WriteFile(plugin, "#!/bin/sh\n[ \"$1\" = 4 ] || exit 0\nrm -rf " +
                        ShellQuote(prefix + "/nested") + " && ln -s " + ShellQuote(outside) + " " +
                        ShellQuote(prefix + "/nested") + "\n");
  ASSERT_EQ(Shell("chmod +x " + ShellQuote(plugin)), 0);
  Json::Value release;  // what is installed, with the created file
  for (const auto& [name, content] : Snapshot(prefix))
    release[name]["size"] = static_cast<Json::UInt64>(content.size());
  release["nested/x"]["size"] = 3;
  for (const std::string& name : release.getMemberNames())
    release[name]["sha384"] = std::string(96, '0');  // only sizes are checked before applying
  const std::map<int, DiffInfo> diffs{
      {4, Crafted(4, R"({"/nested/x": {"operation": "create", "input_file": "new.txt"}})",
                  release.toStyledString())}};
  EXPECT_UPDATE_ERROR(Updater().Update("db1", DatabaseStatus{3, 0, {}}, RemoteInfo(4, 0, false, ""),
                                       diffs, volume, prefix, volume),
                      "Fail to diff update: Refused to write outside the install directory: " +
                          prefix + "/nested/x");
  EXPECT_EQ(ReadFile(outside + "/x"), "not the database's");
}

// A change set is all or nothing, and changes its own database only.
TEST(SqlDiff, FailsWholeAndWritesNoOtherFile) {
  TempDir dir;
  const std::string db = dir / "t.db";
  ASSERT_EQ(Shell("sqlite3 " + db + " 'CREATE TABLE t(id INTEGER PRIMARY KEY);'"), 0);
  const std::string before = ReadFile(db);
  const std::pair<std::string, std::string> cases[] = {
      {"Fail apply sql cmd: UNIQUE constraint failed: t.id",
       "INSERT INTO t VALUES(2);\n\nINSERT INTO t VALUES(2);\n"},
      {"Fail apply sql cmd: not authorized",
       "ATTACH DATABASE '" + (dir / "other.db") + "' AS o;\nCREATE TABLE o.t(x);\n"},
      {"Fail apply sql cmd: cannot VACUUM from within a transaction",
       "VACUUM INTO '" + (dir / "other.db") + "';\n"},
  };
  DiffStrategy strategy("db1", DatabaseStatus{1, 0, {}}, RemoteInfo(2, 0, false, ""), {},
                        dir.path(), dir / "db1", dir.path());
  for (const auto& [error, sql] : cases) {
    SCOPED_TRACE(error);
    WriteFile(dir / "other.db", "");  // attached only if it exists
    WriteFile(dir / "change.sqlitediff", sql);
    EXPECT_UPDATE_ERROR(strategy._DoSqlitePatch(db, dir / "change.sqlitediff"), error);
    EXPECT_EQ(ReadFile(db), before);
    EXPECT_EQ(ReadFile(dir / "other.db"), "");
  }
  EXPECT_UPDATE_ERROR(strategy._DoSqlitePatch(db, dir / "gone"),
                      "Fail apply sql cmd: cannot open " + (dir / "gone"));
}

TEST_F(EngineTest, NotEnoughSpaceRefusesBeforeTouchingInstalledFiles) {
  repo.SetFile("db1", 1, "small.txt", "small");
  ASSERT_EQ(repo.Publish(), 0);
  const RemoteInfo one = repo.Remote("db1");
  // 5.2 MiB that do not compress: the package and its extraction fit in the
  // 16 MiB volume, but installing them would leave about 2.5% free.
  repo.CopyVersion("db1", 1, 2);
  repo.SetFile("db1", 2, "big.bin", Pseudorandom((5u << 20) + (200u << 10), 1));
  ASSERT_EQ(repo.Publish(), 0);
  const RemoteInfo two = repo.Remote("db1");

  InMountNamespace([&](const Findings& findings) {
    if (mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=16m") != 0) {
      findings.Expect(false, std::string("mount the volume: ") + std::strerror(errno));
      return;
    }
    const DatabaseStatus installed =
        Updater().Update("db1", kNever, one, {}, volume, prefix, volume);
    const auto before = Snapshot(prefix);
    findings.Throws([&] { Updater().Update("db1", installed, two, {}, volume, prefix, volume); },
                    "Disk space is too low", "an install leaving less than 5% free");
    findings.Expect(Snapshot(prefix) == before, "the installed files changed");
    findings.Expect(NoTemporaryFiles(), "temporary files left");
  });
}

}  // namespace
