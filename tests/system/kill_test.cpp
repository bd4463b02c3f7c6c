// An update killed with SIGKILL in a forked process at each step: downloading,
// extracting, patching, replacing (whole package and diff), before the status.
// No lock stays held, the status is the previous one, and the next run ends
// with exactly the published files, unaffected by the killed run's leftovers.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <functional>
#include <thread>

#include "dataupdate/file_lock.h"
#include "dataupdate/updater.h"
#include "service_fixture.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;
using namespace std::chrono_literals;

namespace {

constexpr int kMany = 150;  // small files that make the extraction and the copies last

std::string ManyName(int i) {
  return "many/f" + std::to_string(1000 + i) + ".txt";
}

class KillTest : public ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    WriteDefaultConfig(sandbox, repo, volume, {{"db1"}});
    // The decoder and a version-change plug-in stop and wait for good when
    // their hold file exists, after saying so.
    const std::string decoder = sandbox.Path("/usr/vesk/sbin/veskdbudvcdiff");
    fs::remove(decoder);
    WriteFile(decoder, "#!/bin/sh\n[ -e " + ShellQuote(Mark("hold_decode")) + " ] && { : > " +
                           ShellQuote(Mark("decoding")) +
                           "; while :; do sleep 0.05; done; }\nexec " +
                           ShellQuote(VESKDBUD_VCDIFF_BIN) + " \"$@\"\n");
    const std::string plugin =
        sandbox.Path("/usr/vesk/lib/plugins/database_autoupdate/version_change/10-hold");
    WriteFile(plugin, "#!/bin/sh\n[ \"$1\" = 5 ] && [ -e " + ShellQuote(Mark("hold_post")) +
                          " ] && { : > " + ShellQuote(Mark("post_hook")) +
                          "; while :; do sleep 0.05; done; }\nexit 0\n");
    ASSERT_EQ(Shell("chmod +x " + ShellQuote(decoder) + " " + ShellQuote(plugin)), 0);
  }

  std::string Mark(const std::string& name) const { return sandbox / ("marks/" + name); }
  // Where the new tree of db1 is built before it takes the install directory's place.
  std::string Staging(const std::string& name = "") const {
    return volume + "/@database/autoupdate/.db1.staging" + (name.empty() ? "" : "/" + name);
  }
  std::string ManifestPath() const { return sandbox.Path("/var/lib/data_update/db1/manifest"); }
  std::string Tmp(const std::string& name) const { return volume + "/@tmp/data_update/" + name; }

  // Release `n` of the fixture plus kMany small files, all changed when
  // `change_many` (otherwise as in the release before), published and due.
  void ReleaseMany(int n, bool change_many) {
    Release("db1", n);
    if (n == 0 || change_many) {
      for (int i = 0; i < kMany; ++i)
        repo.SetFile("db1", kFirst + n, ManyName(i),
                     "file " + std::to_string(i) + " of " + std::to_string(n) + "\n");
    }
    // Announce every diff, however large, so the diff route is the one taken.
    ASSERT_EQ(repo.Publish({"--max-diff-ratio", "100"}), 0);
    if (n > 0)
      SetAge(Cache(), 3601 + 60);
  }

  // The lock files of the service that another process could not take now.
  std::string HeldLocks() const {
    return Capture(
        "cd " + ShellQuote(sandbox.Path("/run/data_update")) +
        " 2>/dev/null && for f in update_any update_db1 fresh_info using_db1 config; do"
        " [ -e $f.lock ] && ! flock -n $f.lock true && printf '%s ' $f.lock; done; true");
  }

  // Runs `operation` in a child and kills it with SIGKILL as soon as
  // `condition` holds (polled without pause); false when the child ended or
  // the condition did not come within 60 s.
  bool KillWhen(const std::function<void()>& operation, const std::function<bool()>& condition) {
    ForkedChild child([&operation](const ForkedChild::Channel&) {
      operation();
      return 0;
    });
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (std::chrono::steady_clock::now() < deadline) {
      if (condition())
        return child.Kill();
      if (child.Wait(0ms) != -1)
        return false;
    }
    return false;
  }

  // Kills `operation` where `condition` first holds; `landed` tells whether the
  // step was still under way. A kill that came too late is undone and retried.
  bool KillDuring(const std::function<void()>& operation, const std::function<bool()>& condition,
                  const std::function<bool()>& landed) {
    const auto files = Snapshot(Prefix("db1"));
    const std::string status = ReadFile(StatusPath("db1"));
    const std::string manifest = Exists(ManifestPath()) ? ReadFile(ManifestPath()) : "";
    for (int attempt = 0; attempt < 5; ++attempt) {
      if (KillWhen(operation, condition) && landed())
        return true;
      EndOrphans();
      fs::remove_all(Staging());  // or the next attempt would be killed at once
      fs::remove_all(Prefix("db1"));
      for (const auto& [name, content] : files)
        WriteFile(Prefix("db1") + "/" + name, content);
      WriteFile(StatusPath("db1"), status);
      if (!manifest.empty())
        WriteFile(ManifestPath(), manifest);
      SetAge(Cache(), 3601 + 60);
    }
    return false;
  }

  // The killed run's helpers (wget, the decoder, the plug-in) live on as
  // orphans; they hold no lock (checked before this), and are ended here, by
  // their process id, so that the next run is not raced by them.
  void EndOrphans() const {
    for (const auto& entry : fs::directory_iterator("/proc")) {
      const pid_t pid = std::atoi(entry.path().filename().c_str());
      std::ifstream in(entry.path().string() + "/cmdline");
      const std::string cmdline{std::istreambuf_iterator<char>(in), {}};
      if (pid > 0 && pid != getpid() && cmdline.find(sandbox.root()) != std::string::npos)
        kill(pid, SIGKILL);
    }
    std::this_thread::sleep_for(100ms);
  }

  // What every kill must leave: no lock held, the status file whole and
  // naming `version` (-1: none).
  void ExpectKilledCleanly(int version) {
    EXPECT_EQ(HeldLocks(), "");
    if (version < 0) {
      EXPECT_FALSE(Exists(StatusPath("db1")));
    } else {
      EXPECT_EQ(Status("db1")["data_version"], std::to_string(version));
    }
    EndOrphans();
    fs::remove_all(sandbox / "marks");
  }

  // The installed files are exactly release `n`, the status and the manifest
  // agree with them (a repair finds nothing to do), and no temporary
  // directory, staging tree or journal record is left.
  void ExpectInstalled(int n) {
    EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + n), true), "");
    EXPECT_EQ(Status("db1")["data_version"], std::to_string(kFirst + n));
    const DatabaseStatus status = service.info->GetDatabaseStatus("db1");
    EXPECT_TRUE(CheckStatus(status.file_statuses, Prefix("db1")));
    EXPECT_FALSE(Fixer("db1", RemoteInfo(), volume, Prefix("db1"), volume).IsFixNeeded(status));
    EXPECT_TRUE(NoTemporaryFiles());
    EXPECT_FALSE(Exists(Staging()));
    const std::string journal = sandbox.Path("/var/lib/data_update/journal");
    EXPECT_TRUE(!fs::exists(journal) || fs::is_empty(journal));
  }

  Service service;
};

TEST_F(KillTest, KilledAtEachStepTheNextRunEndsAsPublished) {
  const auto update = [this] { service.update.UpdateProject("db1"); };
  const auto fix = [this] { service.update.FixProject("db1"); };

  // 1. Downloading: the first install's package comes slowly.
  ReleaseMany(0, true);
  repo.server().SetFaults(R"([{"match": "/full.pkg", "stall": 30, "stall_after": 100}])");
  const std::string package = Tmp("db1_" + std::to_string(kFirst));
  ASSERT_TRUE(KillWhen(update, [&] {
    boost::system::error_code ec;
    return fs::file_size(package, ec) > 0 && !ec;
  })) << "the update never reached its download";
  ExpectKilledCleanly(-1);
  repo.server().SetFaults("[]");
  update();
  ExpectInstalled(0);

  // 2. Extracting: a repair fetches the whole package again.
  WriteFile(Prefix("db1") + "/readme.txt", "damaged");
  ASSERT_TRUE(KillDuring(
      fix, [&] { return Exists(Tmp("db1_full/items.db")); },
      [&] { return !Exists(Tmp("db1_full/tables/table.bin")); }))
      << "no kill came during the extraction";
  ExpectKilledCleanly(kFirst);
  EXPECT_EQ(ReadFile(Prefix("db1") + "/readme.txt"), "damaged");
  // What a killed extraction left must not be installed by the next one.
  WriteFile(Tmp("db1_full/planted.txt"), "left over");
  fix();
  ExpectInstalled(0);

  // 3. Patching: the decoder is stopped under the killed update.
  ReleaseMany(1, false);
  WriteFile(Mark("hold_decode"), "");
  ASSERT_TRUE(KillWhen(update, [&] { return Exists(Mark("decoding")); }))
      << "the update never reached the decoder";
  ExpectKilledCleanly(kFirst);
  EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst)), "");
  // A left-over patched file would be patched again and fail: the diff route
  // succeeding shows the killed run's sum directory was not reused.
  WriteFile(Tmp("db1_sum/_tables_table_bin"), "left over");
  log.Clear();
  update();
  EXPECT_EQ(log.Matching("Diff update fail"), std::vector<std::string>{});
  ExpectInstalled(1);

  // 4. Replacing with the whole package: the diff is unavailable to the
  // killed run, which dies with the install directory half refilled.
  ReleaseMany(2, false);
  repo.server().SetFaults(R"([{"match": "/diff.pkg", "status": 404}])");
  const std::string readme = Prefix("db1") + "/readme.txt";
  const std::string release1 = ReadFile(readme);
  ASSERT_TRUE(KillDuring(
      update, [&] { return Exists(Staging()); }, [&] { return ReadFile(readme) == release1; }))
      << "no kill came while the new tree was built";
  ExpectKilledCleanly(kFirst + 1);
  EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + 1), true), "");
  repo.server().SetFaults("[]");
  // The killed run removed the manifest before it began to replace: the
  // diff chain is not taken from files nothing vouches for.
  log.Clear();
  update();
  EXPECT_EQ(log.Matching("Prepare full update").size(), 1u);
  ExpectInstalled(2);

  // 5. Before the status is written: the files are the new ones already.
  ReleaseMany(3, false);
  WriteFile(Mark("hold_post"), "");
  ASSERT_TRUE(KillWhen(update, [&] { return Exists(Mark("post_hook")); }))
      << "the update never reached its post hook";
  ExpectKilledCleanly(kFirst + 2);
  EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + 3), true), "");
  update();
  ExpectInstalled(3);

  // 6. Replacing through the diff, which rewrites every small file.
  ReleaseMany(4, true);
  const std::string first = Prefix("db1") + "/" + ManyName(0);
  const std::string before = ReadFile(first);
  ASSERT_TRUE(KillDuring(
      update, [&] { return Exists(Staging()); }, [&] { return ReadFile(first) == before; }))
      << "no kill came while the files were being replaced";
  ExpectKilledCleanly(kFirst + 3);
  EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + 3), true), "");
  update();
  ExpectInstalled(4);

  // 7. A forced install killed while it extracts: the installed release stays.
  ASSERT_TRUE(KillDuring(
      [this] { service.update.ForceInstall("db1", -1); },
      [&] { return Exists(Staging("items.db")); },
      [&] { return CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + 4), true).empty(); }))
      << "no kill came during the forced install's extraction";
  ExpectKilledCleanly(kFirst + 4);
  EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + 4), true), "");
  // What a status display calls first clears the left-overs without an update.
  FinishInterruptedWork();
  EXPECT_FALSE(Exists(Staging()));
  EXPECT_TRUE(NoTemporaryFiles());
  // An update with nothing to do clears what another killed run left all the same.
  WriteFile(Tmp("db2_full/left.txt"), "left over");
  update();
  ExpectInstalled(4);

  // 8. The databases moving to another volume, killed while they are copied
  // (a large file beside them makes the copy last): no partial copy takes the
  // main directory's name, and the next volume event completes the move.
  const std::string second = sandbox / "volume2";
  fs::create_directories(second);
  ScopedEnv volumes("VESK_VOLUMES", (volume + ":" + second).c_str());
  const std::string old_main = volume + "/@database/autoupdate";
  const std::string new_main = second + "/@database/autoupdate";
  WriteFile(old_main + "/ballast.bin", std::string(64 << 20, 'b'));
  const auto unmount = [&] { service.volumes.UnmountVolumeEvent(volume); };
  bool killed = false;
  for (int attempt = 0; attempt < 5 && !killed; ++attempt) {
    killed = KillWhen(unmount, [&] { return Exists(second + "/@database/.autoupdate.moving"); }) &&
             !Exists(new_main);
    EndOrphans();
    if (!killed && Exists(new_main)) {  // too late: put everything back
      fs::remove_all(old_main);
      fs::rename(new_main, old_main);
      fs::remove_all(sandbox.Path("/var/lib/data_update/journal"));
      service.config->SetCurVolume(volume);
    }
  }
  ASSERT_TRUE(killed) << "no kill came while the databases were copied";
  EXPECT_EQ(HeldLocks(), "");
  EndOrphans();  // the killed run's copy
  EXPECT_EQ(CompareTrees(old_main + "/db1", repo.SourceDir("db1", kFirst + 4), true), "");
  unmount();  // run again: the recorded move is completed
  EXPECT_EQ(service.config->GetCurVolume(), second);
  EXPECT_FALSE(Exists(old_main));
  EXPECT_EQ(log.Matching("Completed an unfinished step: move of").size(), 1u);
  fs::remove(new_main + "/ballast.bin");
  volume = second;
  update();
  ExpectInstalled(4);
}

}  // namespace
