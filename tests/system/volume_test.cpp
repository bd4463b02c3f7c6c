// Real tmpfs volumes in a private mount namespace: the mount table decides
// which volume holds the databases (by reserved space), the databases follow
// a volume that leaves, packages extracted on a volume are installed on the
// root file system across devices, and full disks fail clearly losing nothing.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "service_fixture.h"
#include "vesk/mount_vol.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

constexpr unsigned long long kMiB = 1ull << 20;

using VolumeTest = ServiceTest;

// /volume1 (4 MiB) and /volume2, /volume3 (16 MiB); db1 reserves 8 MiB on the
// volume, db2 lives on the root file system.
TEST_F(VolumeTest, RealVolumesChosenLeftFilledAndAdopted) {
  HostMountPoints points({"/volume1", "/volume2", "/volume3"});
  if (!points.error().empty())
    GTEST_SKIP() << "cannot create the mount points: " << points.error();
  WriteDefaultConfig(sandbox, repo, "",
                     {{"db1", "%VOLUME%", "1", true, 8 * kMiB}, {"db2", "%ROOTFS%"}});
  Release("db1", 0);
  Release("db2", 0);
  ASSERT_EQ(repo.Publish(), 0);
  Service service;
  const std::string db2 = sandbox.Path("/var/db/db2");
  const std::string local = sandbox.Path("/usr/vesk/etc/data_update");

  InMountNamespace([&](const Findings& findings) {
    unsetenv("VESK_VOLUMES");  // the mount table decides
    const auto mount_tmpfs = [&](const std::string& where, const std::string& size) {
      const bool ok = mount("tmpfs", where.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
      findings.Expect(ok, "mount " + where + ": " + std::strerror(errno));
      return ok;
    };
    const auto lines = [&] { return log.Matching("volume_handler.cpp"); };
    if (!mount_tmpfs("/volume1", "4m") || !mount_tmpfs("/volume2", "16m"))
      return;

    // Start: /volume1 is too small; db2 is installed from packages extracted on
    // /volume2 to the root file system, by the whole package, the diff and a repair.
    InitService();
    findings.Equal(service.config->GetCurVolume(), "/volume2", "volume chosen at start");
    findings.Expect(log.Contains("warning: volume_handler.cpp:45 Autoupdate set the new volume "
                                 "at '/volume2'."),
                    "no line for the chosen volume");
    volume = "/volume2";
    service.update.UpdateAllProjects();
    findings.Equal(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst)), "", "db1 installed");
    Release("db2", 1);
    findings.Equal(repo.Publish(), 0, "publish db2 release 1");
    SetAge(Cache(), 3601 + 60);
    log.Clear();
    service.update.UpdateProject("db2");
    findings.Equal(log.Matching("Diff update fail").size(), 0u, "fallbacks from the diff");
    WriteFile(db2 + "/readme.txt", "damaged");
    service.update.FixProject("db2");
    findings.Equal(CompareTrees(db2, repo.SourceDir("db2", kFirst + 1), true), "", "db2 repaired");

    // /volume3 arrives (ignored), /volume2 leaves: the databases move to /volume3.
    findings.Expect(mount_tmpfs("/volume3", "16m"), "mount /volume3");
    log.Clear();
    service.volumes.MountVolumeEvent("/volume3");
    findings.Expect(lines() == std::vector<std::string>{"debug: volume_handler.cpp:102 Ignoring "
                                                        "the uninteresting event of '/volume3'."},
                    "lines for a mount while a volume is set");
    service.volumes.UnmountVolumeEvent("/volume2");
    findings.Equal(service.config->GetCurVolume(), "/volume3", "volume after the move");
    findings.Expect(log.Contains("warning: volume_handler.cpp:67 Moving databases from "
                                 "/volume2/@database/autoupdate to /volume3/@database/autoupdate"),
                    "no line for the move");
    findings.Expect(umount("/volume2") == 0, "umount /volume2 after the move");
    volume = "/volume3";
    findings.Equal(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst)), "", "moved db1");

    // A set that grows data_update.conf on a full disk fails and keeps the file
    // whole, current volume included.
    if (!mount_tmpfs(local, "64k"))
      return;
    service.config->SetCurVolume(volume);
    const std::string conf = local + "/data_update.conf";
    const auto store = std::make_shared<Config>(service.io);
    const ServiceConfig view(store);  // points the store at data_update.conf
    store->Set("config", "note", std::string(3000, 'n'));
    const std::string before = ReadFile(conf);
    Shell("cat /dev/zero > " + ShellQuote(local + "/filler") + " 2>/dev/null");  // until full
    findings.Throws([&] { store->Set("config", "note", std::string(4200, 'm')); },
                    "Fail to set config config:note", "set on a full disk");
    findings.Equal(ReadFile(conf), before, "the configuration after the failed set");
    findings.Equal(service.config->GetCurVolume(), volume, "current volume after the failed set");
    fs::remove(local + "/filler");

    // A release that does not fit when extracted: a clear error, nothing lost;
    // with room the next run succeeds.
    Release("db1", 1);
    repo.SetFile("db1", kFirst + 1, "big.bin", std::string(20 * kMiB, 'a'));
    findings.Equal(repo.Publish(), 0, "publish db1 release 1");
    SetAge(Cache(), 3601 + 60);
    const std::string status = ReadFile(StatusPath("db1"));
    const std::string tmp = volume + "/@tmp/data_update/db1_";
    log.Clear();
    findings.Throws([&] { service.update.UpdateProject("db1"); },
                    "veskarchive_extract " + tmp + std::to_string(kFirst + 1) + " failed, ret: 22",
                    "db1 update on a full volume");
    findings.Expect(log.Contains("warning: updater.cpp:83 Diff update fail, try full update: "
                                 "veskarchive_extract " +
                                 tmp + "d" + std::to_string(kFirst + 1) + " failed, ret: 22"),
                    "the diff package's extraction did not fail first");
    findings.Equal(ReadFile(StatusPath("db1")), status, "status after the failed extraction");
    findings.Equal(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst)), "",
                   "files after the failed extraction");
    findings.Expect(NoTemporaryFiles(), "temporary files left by the failed extraction");
    findings.Expect(mount(nullptr, "/volume3", nullptr, MS_REMOUNT, "size=64m") == 0, "grow");
    service.update.UpdateProject("db1");
    findings.Equal(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst + 1), true), "",
                   "db1 release 1 once there is room");

    // /volume3 leaves with only the small volume left: updates stop.
    log.Clear();
    service.volumes.UnmountVolumeEvent("/volume3");
    findings.Equal(service.config->GetCurVolume(), "", "volume with none suitable");
    findings.Expect(
        lines() == std::vector<std::string>{"info: volume_handler.cpp:87 Autoupdate for "
                                            "DBs using volume is going to be disabled "
                                            "normally: Cannot find suitable volume."},
        "lines for the unmount without a suitable volume");

    // One byte short of the reserved space: not adopted. Exactly enough: adopted.
    VESKVolInfo small{};
    findings.Equal(VESKMountVolInfoGet("/volume1", &small), 0, "InfoGet /volume1");
    for (const unsigned long long short_by : {1ull, 0ull}) {
      WriteFile(local + "/databases.conf", "{\"db1\": {\"min_rsv_space_inbytes\": " +
                                               std::to_string(small.avail_bytes + short_by) + "}}");
      service.volumes.MountVolumeEvent("/volume1");
      findings.Equal(service.config->GetCurVolume(), short_by ? "" : "/volume1",
                     "volume after a mount short by " + std::to_string(short_by));
    }
    findings.Expect(fs::is_directory("/volume1/@database/autoupdate"), "no main dir on /volume1");
  });
  for (const char* point : {"/volume1", "/volume2", "/volume3"})
    EXPECT_TRUE(fs::is_empty(point)) << point << " is not empty on the host";
}

}  // namespace
