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

  DatabaseStatus Installed(int version) {
    DatabaseStatus status;
    status.data_version = version;
    return status;
  }

  static DatabaseStatus Never() {
    DatabaseStatus status;
    status.data_version = -1;
    return status;
  }

  // Version 1 of a database of flat files and one SQLite file, published.
  void PublishVersionOne() {
    repo.SetFile("db1", 1, "readme.txt", "version one\n");
    repo.SetFile("db1", 1, "nested/deeper/table.bin", std::string(5000, 'a'));
    repo.Sql("db1", 1, "data/items.db",
             "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT);" + Rows(1, 200));
    ASSERT_EQ(repo.Publish(), 0);
  }

  // Versions 2..4 on top of version 1: a file changed in two consecutive
  // versions, one created then deleted, SQL changes (values over several
  // lines, an index), a one-byte binary change.
  void PublishVersionsTwoToFour() {
    repo.CopyVersion("db1", 1, 2);
    repo.SetFile("db1", 2, "readme.txt", "version two\n");
    repo.SetFile("db1", 2, "extra/new.txt", "created in two\n");
    // Values over several lines: the publisher puts each statement on one.
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
  }

  // Version 1 installed by a first (full) update, then 2..4 published.
  DatabaseStatus InstallOneThenPublishFour() {
    PublishVersionOne();
    DatabaseStatus status = UpdateTo(Never());
    EXPECT_EQ(status.data_version, 1);
    PublishVersionsTwoToFour();
    log.Clear();
    return status;
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

TEST_F(EngineTest, FullInstallReplacesWhateverTheDirectoryHeldAndRecordsEveryFile) {
  repo.SetFile("db1", 1, "a.txt", "alpha");
  repo.SetFile("db1", 1, "dir/sub/b.txt", "beta");
  ASSERT_EQ(repo.Publish(), 0);
  WriteFile(prefix + "/stale.txt", "old");
  WriteFile(prefix + "/stale_dir/inner/x", "old");
  WriteFile(prefix + "/a.txt", "old content");

  DatabaseStatus status = UpdateTo(Never());
  EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 1)), "");
  EXPECT_FALSE(fs::exists(prefix + "/stale_dir"));
  EXPECT_EQ(status.data_version, 1);
  EXPECT_EQ(status.last_fetch_time, repo.Remote("db1").last_fetch_time);
  ASSERT_EQ(status.file_statuses.size(), 2u);
  EXPECT_TRUE(CheckStatus(status.file_statuses, prefix));
  EXPECT_EQ(log.Matching("Diff update fail, try full update:"),
            std::vector<std::string>{
                "warning: updater.cpp:83 Diff update fail, try full update: No sufficient diff "
                "patched"});
  EXPECT_TRUE(log.Contains("notice: updater.cpp:84 Prepare full update: db1"));
  EXPECT_TRUE(log.Contains("notice: updater.cpp:92 Apply update: db1"));
  EXPECT_TRUE(NoTemporaryFiles());

  fs::create_directories(repo.SourceDir("db1", 2));  // an empty package
  ASSERT_EQ(repo.Publish(), 0);
  status = UpdateTo(Never());
  EXPECT_TRUE(fs::is_empty(prefix));
  EXPECT_TRUE(status.file_statuses.empty());
}

TEST_F(EngineTest, DiffChainAppliesEveryVersionInOrderThenFixerRepairsCorruption) {
  const DatabaseStatus one = InstallOneThenPublishFour();
  ASSERT_EQ(repo.Diffs("db1").size(), 3u);
  DatabaseStatus status = UpdateTo(one);
  EXPECT_EQ(log.Matching("Diff update fail"), std::vector<std::string>{});
  EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 4), true), "");
  ASSERT_EQ(status.data_version, 4);
  EXPECT_FALSE(fs::exists(prefix + "/extra/new.txt"));  // created in 2, deleted in 3
  const std::string db = prefix + "/data/items.db";
  EXPECT_EQ(Query(db, "SELECT count(*) FROM items;"), "256\n");
  EXPECT_EQ(Query(db, "SELECT name FROM items WHERE id = 20;"), "it's\nchanged\r\n\n");
  EXPECT_EQ(Query(db, "SELECT count(*) FROM items WHERE id < 5;"), "0\n");
  // The status lists the files the chain touched, with their new digests.
  EXPECT_TRUE(CheckStatus(status.file_statuses, prefix));
  EXPECT_EQ(status.file_statuses.count("/readme.txt"), 1u);
  EXPECT_TRUE(NoTemporaryFiles());

  Fixer fixer("db1", repo.Remote("db1"), volume, prefix, volume);
  EXPECT_FALSE(fixer.IsFixNeeded(status));
  WriteFile(prefix + "/readme.txt", "tampered");
  log.Clear();
  EXPECT_TRUE(fixer.IsFixNeeded(status));
  EXPECT_FALSE(log.Matching("digest check fail").empty());
  EXPECT_TRUE(log.Contains("info: updater.cpp:123 db1 file check fail, Need Fix"));

  DatabaseStatus fixed = fixer.Fix();
  EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 4)), "");
  EXPECT_FALSE(fixer.IsFixNeeded(fixed));
  EXPECT_TRUE(fixer.IsFixNeeded(Never()));
  EXPECT_TRUE(log.Contains("err: updater.cpp:118 db1 not been updated yet. Need Fix"));
}

TEST_F(EngineTest, EveryDiffFailureFallsBackToTheFullPackageWithExactlyOneWarning) {
  InstallOneThenPublishFour();
  // A diff package signed by the trusted key whose input has an unknown type.
  WriteTarball(sandbox / "diff.tar",
               {FileEntry("patch_infos.json",
                          R"({"/readme.txt": {"operation": "update", "input_file": "r.bsdiff"}})"),
                FileEntry("r.bsdiff", "BSDIFF40")});
  auto key = vesk::publish::LoadPrivateKey(repo.key_dir() + "/private.pem");
  vesk::publish::SignArchive(sandbox / "diff.tar", repo.out_dir() + "/crafted.pkg", key.get(), 6,
                             DiffBinding("db1", 2));
  const RemoteInfo one(1, 0, false, repo.BaseUrl() + "/db1/v1/full.pkg");
  struct Case {
    const char* warning;
    std::function<void(std::map<int, DiffInfo>&)> damage;
  };
  const Case cases[] = {
      {"No sufficient diff patched", [](auto& diffs) { diffs.erase(3); }},
      {"Unsupported diff type: .bsdiff",
       [&](auto& diffs) { diffs.at(2) = DiffInfo(repo.BaseUrl() + "/crafted.pkg", 100); }},
      {"Fail apply sql cmd: ",  // a local row where version 3 inserts one
       [&](auto&) { Query(prefix + "/data/items.db", "INSERT INTO items VALUES(230, 'local');"); }},
      {"Diff chain does not lead to the published release: stray.txt is not in the release",
       [&](auto&) { WriteFile(prefix + "/stray.txt", "not published"); }},
      {"Fail to apply vcdiff on ",
       [&](auto&) { fs::remove(sandbox / "usr/vesk/sbin/veskdbudvcdiff"); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.warning);
    Updater().Update("db1", Never(), one, {}, volume, prefix, volume);
    ASSERT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 1)), "");
    auto diffs = repo.Diffs("db1");
    c.damage(diffs);
    log.Clear();
    const DatabaseStatus status =
        Updater().Update("db1", Installed(1), repo.Remote("db1"), diffs, volume, prefix, volume);
    const auto warnings = log.Matching("Diff update fail");
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0].rfind(std::string("warning: updater.cpp:83 Diff update fail, try full "
                                            "update: ") +
                                    c.warning,
                                0),
              0u)
        << warnings[0];
    EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 4)), "");
    EXPECT_EQ(status.data_version, 4);
    EXPECT_TRUE(NoTemporaryFiles());
  }
}

// "/a.b" and "/a_b" flatten to the same temporary file in the sum directory.
// Changed together by a real publisher, both were installed with the content
// of the last one applied, and the status recorded that as correct, so no
// repair would ever notice; now the diff is refused and the whole package used.
TEST_F(EngineTest, NamesThatFlattenAlikeFallBackToFullInsteadOfMixingUp) {
  repo.SetFile("db1", 1, "a.b", "dot one\n");
  repo.SetFile("db1", 1, "a_b", "underscore one\n");
  ASSERT_EQ(repo.Publish(), 0);
  const DatabaseStatus one = UpdateTo(Never());
  repo.CopyVersion("db1", 1, 2);
  repo.SetFile("db1", 2, "a.b", "dot two\n");
  repo.SetFile("db1", 2, "a_b", "underscore two\n");
  ASSERT_EQ(repo.Publish({"--max-diff-ratio", "100"}), 0);  // announced however small
  ASSERT_EQ(repo.Diffs("db1").count(2), 1u);

  log.Clear();
  const DatabaseStatus two = UpdateTo(one);
  EXPECT_EQ(log.Matching("Diff update fail"),
            std::vector<std::string>{"warning: updater.cpp:83 Diff update fail, try full update: "
                                     "Invalid patch info for /a_b: its temporary file is also "
                                     "that of /a.b"});
  EXPECT_EQ(CompareTrees(prefix, repo.SourceDir("db1", 2)), "");
  EXPECT_TRUE(CheckStatus(two.file_statuses, prefix));
  EXPECT_TRUE(NoTemporaryFiles());
}

TEST_F(EngineTest, FailedSqlDiffRollsBackEveryStatement) {
  TempDir dir;
  const std::string db = dir / "t.db";
  ASSERT_EQ(Shell("sqlite3 " + db +
                  " 'CREATE TABLE t(id INTEGER PRIMARY KEY); INSERT INTO t VALUES(1);'"),
            0);
  WriteFile(dir / "change.sqlitediff", "INSERT INTO t VALUES(2);\n\nINSERT INTO t VALUES(1);\n");
  const std::string before = ReadFile(db);
  DiffStrategy strategy("db1", Installed(1), RemoteInfo(2, 0, false, ""), {}, volume, prefix,
                        volume);
  try {
    strategy._DoSqlitePatch(db, dir / "change.sqlitediff");
    FAIL() << "the duplicate key must fail";
  } catch (const UpdateError& e) {
    EXPECT_EQ(std::string(e.what()).rfind("Fail apply sql cmd: ", 0), 0u) << e.what();
  }
  EXPECT_EQ(ReadFile(db), before);
  EXPECT_EQ(Query(db, "SELECT count(*) FROM t;"), "1\n");
}

// The update is prepared and announced to the plug-ins while a reader holds
// the read lock; only the replacement waits for it.
TEST_F(EngineTest, AReaderHoldingTheReadLockDelaysOnlyTheReplacement) {
  repo.SetFile("db1", 1, "a.txt", "one");
  ASSERT_EQ(repo.Publish(), 0);
  UpdateTo(Never());
  repo.CopyVersion("db1", 1, 2);
  repo.SetFile("db1", 2, "a.txt", "two");
  ASSERT_EQ(repo.Publish(), 0);
  const std::string marks = sandbox / "marks";
  const std::string plugin =
      sandbox / "usr/vesk/lib/plugins/database_autoupdate/version_change/10-mark";
  WriteFile(plugin, "#!/bin/sh\necho $1 >> " + ShellQuote(marks) + "\n");
  ASSERT_EQ(Shell("chmod +x " + ShellQuote(plugin)), 0);

  ForkedChild reader([](const ForkedChild::Channel& parent) {
    const int fd = VESKDBUDGetFileLock("db1", 0);
    parent.Send(fd >= 0 ? 'L' : 'n');
    parent.Receive();
    VESKDBUDReleaseFileLock(fd);
    return 0;
  });
  ASSERT_EQ(reader.Receive(), 'L');
  ForkedChild updater([&](const ForkedChild::Channel&) {
    return UpdateTo(Installed(1)).data_version == 2 ? 0 : 1;
  });
  const auto start = std::chrono::steady_clock::now();
  while (!Exists(marks) && SecondsSince(start) < 20)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(updater.Wait(std::chrono::seconds(1)), -1) << "the update did not wait for the reader";
  EXPECT_EQ(ReadFile(marks), "4\n");
  EXPECT_EQ(ReadFile(prefix + "/a.txt"), "one");

  reader.Send('R');
  EXPECT_EQ(reader.Wait(), 0);
  EXPECT_EQ(updater.Wait(), 0);
  EXPECT_EQ(ReadFile(marks), "4\n5\n");
  EXPECT_EQ(ReadFile(prefix + "/a.txt"), "two");
}

TEST_F(EngineTest, PluginsRunBeforeAndAfterTheChange) {
  repo.SetFile("db1", 1, "b.db", "B");
  repo.SetFile("db1", 1, "a.db", "A");
  ASSERT_EQ(repo.Publish(), 0);
  const std::string dir = sandbox / "usr/vesk/lib/plugins/database_autoupdate/version_change";
  const std::string record = sandbox / "plugin.log";
  WriteFile(dir + "/10-record",
            "#!/bin/sh\n"
            "state=absent; [ -f " +
                prefix +
                "/a.db ] && state=present\n"
                "echo \"$1 $DATABASE $CHANGED_FILES $DELIMITER $state\" >> " +
                record + "\n");
  WriteFile(dir + "/20-fail", "#!/bin/sh\nexit 3\n");
  ASSERT_EQ(Shell("chmod +x " + ShellQuote(dir) + "/*"), 0);

  UpdateTo(Never());
  EXPECT_EQ(ReadFile(record), "4 db1 a.db:b.db : absent\n5 db1 a.db:b.db : present\n");
  EXPECT_EQ(Snapshot(prefix).size(), 2u);  // the failing plug-in did not stop the update
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
        Updater().Update("db1", Never(), one, {}, volume, prefix, volume);
    const auto before = Snapshot(prefix);
    findings.Throws([&] { Updater().Update("db1", installed, two, {}, volume, prefix, volume); },
                    "Disk space is too low", "an install leaving less than 5% free");
    findings.Expect(Snapshot(prefix) == before, "the installed files changed");
    findings.Expect(NoTemporaryFiles(), "temporary files left");
  });
}

}  // namespace
