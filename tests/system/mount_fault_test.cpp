// Faults that need real mounts, made in a private mount namespace (a forked
// child; skipped with the reason where namespaces are not permitted): a volume
// that is another file system than the root, and full disks (small tmpfs
// mounts over the volume and over the local configuration directory).
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>

#include "service_fixture.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;
using namespace std::chrono_literals;

namespace {

constexpr int kSkip = 77;

// Fills the file system holding `dir` with the file `dir`/filler until it is full.
void Fill(const std::string& dir) {
  std::ofstream out(dir + "/filler", std::ios::binary);
  const std::string block(4096, 'f');
  while (out.write(block.data(), static_cast<std::streamsize>(block.size())) && out.flush()) {
  }
}

class MountFaultTest : public ServiceTest {
 protected:
  // Runs `body` in a child inside a private mount namespace and reports what
  // it found; skips where the namespace or the mounts are not permitted.
  void InNamespace(const std::function<void(const Findings&)>& body) {
    if (geteuid() != 0)
      GTEST_SKIP() << "mounting a tmpfs needs root (euid " << geteuid() << ")";
    const std::string findings_path = sandbox / "findings";
    ForkedChild child([&](const ForkedChild::Channel&) {
      const Findings findings(findings_path);
      if (unshare(CLONE_NEWNS) != 0 ||
          mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        findings.Expect(false, std::string("private mount namespace: ") + std::strerror(errno));
        return kSkip;
      }
      try {
        body(findings);
      } catch (const std::exception& e) {
        findings.Expect(false, std::string("unexpected error: ") + e.what());
      }
      return 0;
    });
    const int status = child.Wait(120s);
    const std::string findings = Exists(findings_path) ? ReadFile(findings_path) : "";
    if (status == kSkip)
      GTEST_SKIP() << findings;
    std::istringstream lines(findings);
    for (std::string line; std::getline(lines, line);)
      ADD_FAILURE() << line;
    EXPECT_EQ(status, 0) << "100: the child threw something that is no exception";
  }

  Service service;
};

// The volume is a file system of its own, as on every appliance, and db1 is
// installed on the root file system: its files are extracted on the volume
// and copied across. The whole-package install, a diff update (which copies
// the installed files to the volume to patch them) and a repair all work.
// Boost.Filesystem's copy failed across file systems ("Invalid cross-device
// link"), so such a database was never installed.
TEST_F(MountFaultTest, ADatabaseOnTheRootFileSystemIsInstalledFromAVolumeOfItsOwn) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1", "%ROOTFS%"}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);
  const std::string db1 = sandbox.Path("/var/db/db1");

  InNamespace([&](const Findings& findings) {
    if (mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=16m") != 0) {
      findings.Expect(false, std::string("mount the volume: ") + std::strerror(errno));
      return;
    }
    service.update.UpdateProject("db1");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst)), "", "release 0");
    Release("db1", 1);
    findings.Equal(repo.Publish(), 0, "publish release 1");
    SetAge(Cache(), 3601 + 60);
    log.Clear();
    service.update.UpdateProject("db1");
    findings.Equal(log.Matching("Diff update fail").size(), 0u, "fallbacks from the diff");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst + 1), true), "", "release 1");
    WriteFile(db1 + "/readme.txt", "damaged");
    service.update.FixProject("db1");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst + 1), true), "", "repaired");
  });
}

// The volume is a 3 MiB tmpfs holding the temporary files of both databases
// and the installed files of db2 (db1 is installed on the root file system).
// db1's release 1 adds 4 MiB, which the packages carry compressed: extracting
// it fills the volume. Then, on a 32 MiB volume, a plug-in fills the volume
// after db2's update was prepared and checked for space, so the replacement
// of its installed files runs out of room. Each time the update fails with a
// clear error, the status and the installed files stay, the temporary files
// go, and the next run after space is freed installs exactly the published
// files. (The extraction used to end "successfully" with a hole where the data
// did not fit, and db1's update installed and recorded that file.)
TEST_F(MountFaultTest, AFullVolumeFailsTheUpdateClearlyAndTheNextRunWithSpaceSucceeds) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1", "%ROOTFS%"}, {"db2"}});
  Release("db1", 0);
  Release("db2", 0);
  ASSERT_EQ(repo.Publish(), 0);
  const std::string db1 = sandbox.Path("/var/db/db1");
  const std::string plugin =
      sandbox.Path("/usr/vesk/lib/plugins/database_autoupdate/version_change/10-fill");
  const std::string fill_mark = sandbox / "fill";

  InNamespace([&](const Findings& findings) {
    if (mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=3m") != 0) {
      findings.Expect(false, std::string("mount the volume: ") + std::strerror(errno));
      return;
    }
    const auto tmp_gone = [&] {
      const std::string tmp = volume + "/@tmp/data_update";
      return !fs::exists(tmp) || fs::is_empty(tmp);
    };
    service.update.UpdateAllProjects();
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst)), "", "db1 release 0");
    findings.Equal(CompareTrees(Prefix("db2"), repo.SourceDir("db2", kFirst)), "", "db2 release 0");
    const std::string status0 = ReadFile(StatusPath("db1"));

    // Extraction: neither the diff nor the whole package fits.
    repo.CopyVersion("db1", kFirst, kFirst + 1);
    repo.SetFile("db1", kFirst + 1, "big.bin", std::string(4 << 20, 'a'));
    findings.Equal(repo.Publish(), 0, "publish db1 release 1");
    SetAge(Cache(), 3601 + 60);
    const std::string tmp = volume + "/@tmp/data_update/db1_";
    log.Clear();
    findings.Throws([&] { service.update.UpdateProject("db1"); },
                    "veskarchive_extract " + tmp + std::to_string(kFirst + 1) + " failed, ret: 22",
                    "db1 update on a full volume");
    findings.Expect(log.Contains("warning: updater.cpp:83 Diff update fail, try full update: "
                                 "veskarchive_extract " +
                                 tmp + "d" + std::to_string(kFirst + 1) + " failed, ret: 22"),
                    "the diff package's extraction did not fail first");
    findings.Equal(ReadFile(StatusPath("db1")), status0, "status after the failed extraction");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst)), "",
                   "installed files after the failed extraction");
    findings.Expect(tmp_gone(), "temporary files left by the failed extraction");

    // Space is freed: the next run succeeds.
    if (mount(nullptr, volume.c_str(), nullptr, MS_REMOUNT, "size=32m") != 0) {
      findings.Expect(false, std::string("grow the volume: ") + std::strerror(errno));
      return;
    }
    service.update.UpdateProject("db1");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst + 1)), "",
                   "db1 release 1 once there is room");

    // Replacement: db2 is prepared and checked with room to spare, then the
    // volume fills up before its installed files are replaced. The prepared
    // files are moved into place on the same volume, so the replacement needs
    // no new space and completes.
    repo.CopyVersion("db2", kFirst, kFirst + 1);
    repo.SetFile("db2", kFirst + 1, "big.bin", std::string(4 << 20, 'a'));
    findings.Equal(repo.Publish(), 0, "publish db2 release 1");
    SetAge(Cache(), 3601 + 60);
    service.update.UpdateProject("db2");
    WriteFile(plugin, "#!/bin/sh\n[ \"$1\" = 4 ] && [ -e " + ShellQuote(fill_mark) +
                          " ] && { dd if=/dev/zero of=" + ShellQuote(volume + "/filler") +
                          " bs=64k 2>/dev/null; true; }\nexit 0\n");
    Shell("chmod +x " + ShellQuote(plugin));
    WriteFile(fill_mark, "");
    repo.CopyVersion("db2", kFirst + 1, kFirst + 2);
    repo.SetFile("db2", kFirst + 2, "big.bin", std::string(6 << 20, 'b'));
    findings.Equal(repo.Publish(), 0, "publish db2 release 2");
    SetAge(Cache(), 3601 + 60);
    log.Clear();
    service.update.UpdateProject("db2");
    findings.Expect(fs::exists(volume + "/filler"), "the plug-in filled the volume");
    findings.Expect(log.Matching("Diff update fail").empty(), "the diff was not the one applied");
    findings.Equal(CompareTrees(Prefix("db2"), repo.SourceDir("db2", kFirst + 2), true), "",
                   "db2 release 2 replaced on a full volume");
    findings.Equal(service.info->GetDatabaseStatus("db2").data_version, kFirst + 2,
                   "db2 status after release 2");
    findings.Expect(tmp_gone(), "temporary files left by the replacement");
    fs::remove(fill_mark);
    fs::remove(volume + "/filler");
  });
}

// The local configuration directory is a small tmpfs that is full. A set that
// makes data_update.conf grow fails, and the file keeps its current volume.
// Written in place, the file was truncated at the last page that fit, the set
// reported success, and the service had no volume any more.
TEST_F(MountFaultTest, AConfigurationWrittenOnAFullDiskKeepsTheCurrentVolume) {
  WriteDefaultConfig(sandbox, repo, "", {{"db1"}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);
  const std::string dir = sandbox.Path("/usr/vesk/etc/data_update");
  fs::create_directories(dir);
  const std::string local = dir + "/data_update.conf";

  // The store behind the service configuration: data_update.conf.
  const auto store = std::make_shared<Config>(service.io);
  const ServiceConfig view(store);

  InNamespace([&](const Findings& findings) {
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k") != 0) {
      findings.Expect(false, std::string("mount the configuration: ") + std::strerror(errno));
      return;
    }
    // One page of configuration, the current volume in it.
    service.config->SetCurVolume(volume);
    Json::Value root = service.io->ReadJson(local);
    root["config"]["note"] = std::string(4000 - root.toStyledString().size(), 'n');
    service.io->WriteJson(local, root);
    const std::string before = ReadFile(local);
    findings.Expect(before.size() < 4096 && before.size() > 3900, "one page of configuration");
    Fill(dir);

    findings.Throws([&] { store->Set("config", "note", std::string(4200, 'm')); },
                    "Fail to set config config:note", "set on a full disk");
    findings.Equal(ReadFile(local), before, "the configuration after the failed set");
    findings.Equal(service.config->GetCurVolume(), volume, "current volume");
    service.update.UpdateProject("db1");
    findings.Equal(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst)), "",
                   "update after the failed set");

    fs::remove(dir + "/filler");
    store->Set("config", "note", std::string(4200, 'm'));
    findings.Equal(store->Get("config", "note"), std::string(4200, 'm'), "set with room");
    findings.Equal(service.config->GetCurVolume(), volume, "current volume with room");
  });
}

}  // namespace
