// The update engine end to end: packages made by veskdbud-publish, served on
// 127.0.0.1, fetched by wget, verified and extracted through the platform, diffs
// applied by the real decoder and SQLite.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include "dataupdate/project_lock.h"
#include "dataupdate/strategy.h"
#include "dataupdate/updater.h"
#include "package_craft.h"
#include "repo_fixture.h"
#include "signing.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

std::string Query(const std::string& db, const std::string& sql) {
  return Capture("sqlite3 " + ShellQuote(db) + " " + ShellQuote(sql));
}

std::string Rows(int from, int to) {
  std::string sql = "BEGIN;";
  for (int i = from; i <= to; ++i) {
    sql += "INSERT INTO items VALUES(" + std::to_string(i) + ", 'item " + std::to_string(i) + "');";
  }
  return sql + "COMMIT;";
}

const DatabaseStatus kNever{-1, 0, {}};

class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    InstallTrust(sandbox, repo);
    WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
  }

  DatabaseStatus UpdateTo(const DatabaseStatus& status) {
    return Updater().Update("db1", status, repo.Remote("db1"), repo.Diffs("db1"), volume, prefix,
                            volume);
  }

  bool NoTemporaryFiles() const {
    const std::string tmp = volume + "/@tmp/data_update";
    return !fs::exists(tmp) || fs::is_empty(tmp);
  }

  Sandbox sandbox;
  Repo repo;
  LogCapture log;
  std::string volume = sandbox.volume();
  std::string prefix = sandbox.volume() + "/@database/autoupdate/db1";
};

// A chain of diffs ends in the release, and every way it can fail part-way
// falls back to the whole package (which replaces whatever the directory
// held) with exactly one warning; then the fixer repairs a damaged file.
TEST_F(EngineTest, DiffChainOrItsFallbackEndsInTheReleaseThenFixerRepairs) {
  repo.SetFile("db1", 1, "readme.txt", "version one\n");
  repo.SetFile("db1", 1, "nested/deeper/table.bin", std::string(5000, 'a'));
  repo.Sql("db1", 1, "data/items.db",
           "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT);" + Rows(1, 200));
  // Versions 2..4: a file changed in consecutive versions, one created then
  // deleted, SQL with values over several lines (the publisher puts each
  // statement on one) and an index, a one-byte binary change.
  repo.CopyVersion("db1", 1, 2);
  repo.SetFile("db1", 2, "readme.txt", "version two\n");
  repo.SetFile("db1", 2, "extra/new.txt", "created in two\n");
  repo.Sql("db1", 2, "data/items.db",
           "UPDATE items SET name = 'it''s' || char(10) || 'changed' || char(13) || char(10) "
           "WHERE id % 10 = 0;");
  repo.CopyVersion("db1", 2, 3);
  repo.SetFile("db1", 3, "readme.txt", "version three, longer than before\n");
  repo.RemoveFile("db1", 3, "extra/new.txt");
  repo.Sql("db1", 3, "data/items.db",
           Rows(201, 260) + "DELETE FROM items WHERE id < 5; CREATE INDEX names ON items(name);");
  repo.CopyVersion("db1", 3, 4);
  std::string table(5000, 'a');
  table[100] = 'b';
  repo.SetFile("db1", 4, "nested/deeper/table.bin", table);
  ASSERT_EQ(repo.Publish(), 0);
  const RemoteInfo one(1, 0, false, repo.BaseUrl() + "/db1/v1/full.pkg");
  struct Case {
    const char* warning;  // "" for none
    std::function<void(std::map<int, DiffInfo>&)> damage;
  };
  const Case cases[] = {
      {"", [](auto&) {}},
      {"No sufficient diff patched", [](auto& diffs) { diffs.erase(3); }},
      {"Fail apply sql cmd: ",  // a local row where version 3 inserts one
       [&](auto&) { Query(prefix + "/data/items.db", "INSERT INTO items VALUES(230, 'local');"); }},
      {"Diff chain does not lead to the published release: stray.txt is not in the release",
       [&](auto&) { WriteFile(prefix + "/stray.txt", "not published"); }},
      {"Fail to apply vcdiff on ",
       [&](auto&) { fs::remove(sandbox / "usr/vesk/sbin/veskdbudvcdiff"); }},
  };
  DatabaseStatus status;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.warning);
    WriteFile(prefix + "/stale/inner/x", "not in the release");
    Updater().Update("db1", kNever, one, {}, volume, prefix, volume);
    ASSERT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 1)), "");
    auto diffs = repo.Diffs("db1");
    c.damage(diffs);
    log.Clear();
    status = Updater().Update("db1", DatabaseStatus{1, 0, {}}, repo.Remote("db1"), diffs, volume,
                              prefix, volume);
    const auto warnings = log.Matching("Diff update fail");
    ASSERT_EQ(warnings.size(), *c.warning ? 1u : 0u);
    if (*c.warning) {
      EXPECT_EQ(warnings[0].rfind(
                    std::string("warning: updater.cpp:83 Diff update fail, try full update: ") +
                        c.warning,
                    0),
                0u)
          << warnings[0];
      EXPECT_TRUE(log.Contains("notice: updater.cpp:84 Prepare full update: db1"));
    }
    EXPECT_TRUE(log.Contains("notice: updater.cpp:92 Apply update: db1"));
    EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 4), true), "");
    EXPECT_EQ(status.data_version, 4);
    EXPECT_EQ(status.last_fetch_time, repo.Remote("db1").last_fetch_time);
    EXPECT_TRUE(CheckStatus(status.file_statuses, prefix));
    EXPECT_TRUE(NoTemporaryFiles());
  }
  const std::string db = prefix + "/data/items.db";
  EXPECT_EQ(Query(db, "SELECT name FROM items WHERE id = 20;"), "it's\nchanged\r\n\n");

  Fixer fixer("db1", repo.Remote("db1"), volume, prefix, volume);
  EXPECT_FALSE(fixer.IsFixNeeded(status));
  WriteFile(prefix + "/readme.txt", "tampered");
  log.Clear();
  EXPECT_TRUE(fixer.IsFixNeeded(status));
  EXPECT_TRUE(log.Contains("info: updater.cpp:123 db1 file check fail, Need Fix"));
  EXPECT_FALSE(fixer.IsFixNeeded(fixer.Fix()));
  EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 4)), "");
  EXPECT_TRUE(fixer.IsFixNeeded(kNever));
  EXPECT_TRUE(log.Contains("err: updater.cpp:118 db1 not been updated yet. Need Fix"));
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
      {"Fail apply sql cmd: cannot open " + (dir / "gone.sqlitediff"), ""},
  };
  DiffStrategy strategy("db1", DatabaseStatus{1, 0, {}}, RemoteInfo(2, 0, false, ""), {},
                        dir.path(), dir / "db1", dir.path());
  for (const auto& [error, sql] : cases) {
    SCOPED_TRACE(error);
    WriteFile(dir / "other.db", "");  // SQLite attaches an existing file in a transaction
    if (!sql.empty())
      WriteFile(dir / "change.sqlitediff", sql);
    EXPECT_UPDATE_ERROR(
        strategy._DoSqlitePatch(db, dir / (sql.empty() ? "gone.sqlitediff" : "change.sqlitediff")),
        error);
    EXPECT_EQ(ReadFile(db), before);
    EXPECT_EQ(ReadFile(dir / "other.db"), "");
  }
}

// The update is prepared and announced to the plug-ins while a reader holds
// the read lock; only the replacement waits for it. A failing plug-in stops
// nothing.
TEST_F(EngineTest, AReaderHoldingTheReadLockDelaysOnlyTheReplacement) {
  repo.SetFile("db1", 1, "a.txt", "one");
  ASSERT_EQ(repo.Publish(), 0);
  UpdateTo(kNever);
  repo.CopyVersion("db1", 1, 2);
  repo.SetFile("db1", 2, "a.txt", "two");
  ASSERT_EQ(repo.Publish(), 0);
  const std::string marks = sandbox / "marks";
  const std::string plugins = sandbox / "usr/vesk/lib/plugins/database_autoupdate/version_change";
  WriteFile(plugins + "/10-mark", "#!/bin/sh\necho $1 $DATABASE $CHANGED_FILES $DELIMITER $(cat " +
                                      ShellQuote(prefix + "/a.txt") + ") >> " + ShellQuote(marks) +
                                      "\n");
  WriteFile(plugins + "/20-fail", "#!/bin/sh\nexit 3\n");
  ASSERT_EQ(Shell("chmod +x " + ShellQuote(plugins) + "/*"), 0);

  ForkedChild reader([](const ForkedChild::Channel& parent) {
    const int fd = VESKDBUDGetFileLock("db1", 0);
    parent.Send(fd >= 0 ? 'L' : 'n');
    parent.Receive();
    VESKDBUDReleaseFileLock(fd);
    return 0;
  });
  ASSERT_EQ(reader.Receive(), 'L');
  ForkedChild updater([&](const ForkedChild::Channel&) {
    return UpdateTo(DatabaseStatus{1, 0, {}}).data_version == 2 ? 0 : 1;
  });
  const auto start = std::chrono::steady_clock::now();
  while (!Exists(marks) && SecondsSince(start) < 20)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(updater.Wait(std::chrono::seconds(1)), -1) << "the update did not wait for the reader";
  EXPECT_EQ(ReadFile(marks), "4 db1 a.txt : one\n");
  EXPECT_EQ(ReadFile(prefix + "/a.txt"), "one");

  reader.Send('R');
  EXPECT_EQ(reader.Wait(), 0);
  EXPECT_EQ(updater.Wait(), 0);
  EXPECT_EQ(ReadFile(marks), "4 db1 a.txt : one\n5 db1 a.txt : two\n");
  EXPECT_FALSE(log.Matching("hook.cpp:107 Failed to exec hook at action [4]").empty());
}

TEST_F(EngineTest, NotEnoughSpaceRefusesBeforeTouchingInstalledFiles) {
  repo.SetFile("db1", 1, "small.txt", "small");
  ASSERT_EQ(repo.Publish(), 0);
  const RemoteInfo one = repo.Remote("db1");
  // 6 MiB that do not compress: the package and its extraction fit in the
  // 16 MiB volume, but installing them would leave less than 5% free.
  std::string big(6u << 20, '\0');
  std::ifstream("/dev/urandom", std::ios::binary).read(&big[0], static_cast<long>(big.size()));
  repo.CopyVersion("db1", 1, 2);
  repo.SetFile("db1", 2, "big.bin", big);
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
