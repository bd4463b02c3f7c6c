// The service front between real processes: updates of one database
// serialising, the checker seeing them, and real volumes mounted and leaving.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "service_fixture.h"
#include "vesk/mount_vol.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;
using namespace std::chrono_literals;

namespace {

bool WaitFor(const std::string& path, std::chrono::seconds limit = 20s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!Exists(path)) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

class ServiceProcessTest : public ServiceTest {
 protected:
  // A version-change plug-in that records each action ("4 db1" before the
  // change, "5 db1" after it) and stops before the change until the file `go`
  // appears, after creating `started`.
  void InstallPlugin() {
    const std::string plugin =
        sandbox.Path("/usr/vesk/lib/plugins/database_autoupdate/version_change/10-mark");
    WriteFile(plugin, "#!/bin/sh\necho \"$1 $DATABASE\" >> " + ShellQuote(marks) +
                          "\n[ \"$1\" = 4 ] || exit 0\n: > " + ShellQuote(started) +
                          "\nwhile [ ! -e " + ShellQuote(go) + " ]; do sleep 0.05; done\n");
    ASSERT_EQ(Shell("chmod +x " + ShellQuote(plugin)), 0);
  }

  // A child running UpdateProject; exit status 0 when it returned.
  std::unique_ptr<ForkedChild> UpdateInChild(const std::string& id) {
    return std::make_unique<ForkedChild>([this, id](const ForkedChild::Channel&) {
      service.update.UpdateProject(id);
      return 0;
    });
  }

  Service service;
  const std::string marks = sandbox / "marks";
  const std::string started = sandbox / "started";
  const std::string go = sandbox / "go";
};

TEST_F(ServiceProcessTest, UpdatesOfOneDatabaseSerialiseAndTheCheckerSeesThem) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1"}, {"db2"}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);
  InstallPlugin();
  EXPECT_FALSE(service.checker.IsAnyUpdating());
  EXPECT_FALSE(service.checker.IsUpdating("db1"));

  auto first = UpdateInChild("db1");
  ASSERT_TRUE(WaitFor(started)) << "the first update never reached its plug-in";
  EXPECT_TRUE(service.checker.IsUpdating("db1"));
  EXPECT_TRUE(service.checker.IsAnyUpdating());
  EXPECT_FALSE(service.checker.IsUpdating("db2"));
  EXPECT_UPDATE_ERROR(service.checker.IsUpdating("db9"), "Project db9 not supported");

  auto second = UpdateInChild("db1");
  EXPECT_EQ(second->Wait(1500ms), -1) << "the second update did not wait for the first";
  EXPECT_EQ(ReadFile(marks), "4 db1\n");
  WriteFile(go, "");
  EXPECT_EQ(first->Wait(), 0);
  EXPECT_EQ(second->Wait(), 0);

  // The second run found the first one's work done.
  EXPECT_EQ(ReadFile(marks), "4 db1\n5 db1\n");
  EXPECT_EQ(log.Matching("update.cpp:2"),
            (std::vector<std::string>{"warning: update.cpp:252 Update db1",
                                      "warning: update.cpp:270 Update db1 completed and succeed",
                                      "info: update.cpp:248 'db1' has been up to date"}));
  EXPECT_EQ(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst)), "");
  EXPECT_FALSE(service.checker.IsUpdating("db1"));
  EXPECT_FALSE(service.checker.IsAnyUpdating());
}

// Real tmpfs volumes at /volume1 (4 MiB), /volume2 and /volume3 (16 MiB each)
// with db1 reserving 8 MiB: the small volume is passed over, the databases
// follow the volume that leaves, updates stop when no volume can take them,
// and a volume of exactly the reserved size is adopted when it is mounted.
TEST_F(ServiceProcessTest, RealVolumesAreChosenByReservedSpaceAndTheDatabasesMoveWithThem) {
  HostMountPoints points({"/volume1", "/volume2", "/volume3"});
  if (!points.error().empty())
    GTEST_SKIP() << "cannot create the mount points: " << points.error();
  WriteDefaultConfig(sandbox, repo, "", {{"db1", "%VOLUME%", "1", true, 8u << 20}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);
  const std::string source = repo.SourceDir("db1", kFirst);
  const std::string databases_local = sandbox.Path("/usr/vesk/etc/data_update/databases.conf");

  InMountNamespace([&](const Findings& findings) {
    unsetenv("VESK_VOLUMES");  // the mount table decides
    for (const auto& [where, size] : {std::pair{"/volume1", "size=4m"}, {"/volume2", "size=16m"}}) {
      if (mount("tmpfs", where, "tmpfs", 0, size) != 0) {
        findings.Expect(false, std::string("mount ") + where + ": " + std::strerror(errno));
        return;
      }
    }
    const auto main_dir = [](const std::string& on) { return on + "/@database/autoupdate"; };
    const auto volume_lines = [&] { return log.Matching("volume_handler.cpp"); };

    InitService();
    findings.Equal(service.config->GetCurVolume(), "/volume2", "volume chosen at start");
    findings.Expect(log.Contains("warning: volume_handler.cpp:45 Autoupdate set the new volume "
                                 "at '/volume2'."),
                    "no line for the chosen volume");
    service.update.UpdateProject("db1");
    findings.Equal(CompareTrees(main_dir("/volume2") + "/db1", source), "", "installed tree");

    // Mounted while a volume is set: ignored.
    findings.Expect(mount("tmpfs", "/volume3", "tmpfs", 0, "size=16m") == 0, "mount /volume3");
    log.Clear();
    service.volumes.MountVolumeEvent("/volume3");
    findings.Equal(volume_lines().size(), 1u, "lines for a mount while a volume is set");
    findings.Expect(log.Contains("debug: volume_handler.cpp:102 Ignoring the uninteresting event "
                                 "of '/volume3'."),
                    "no debug line for the ignored mount");

    // /volume2 leaves: the databases move to /volume3, the small one is passed over.
    service.volumes.UnmountVolumeEvent("/volume2");
    findings.Equal(service.config->GetCurVolume(), "/volume3", "volume after the move");
    findings.Expect(log.Contains("warning: volume_handler.cpp:67 Moving databases from "
                                 "/volume2/@database/autoupdate to /volume3/@database/autoupdate"),
                    "no line for the move");
    findings.Expect(umount("/volume2") == 0, "umount /volume2 after the move");
    findings.Equal(CompareTrees(main_dir("/volume3") + "/db1", source), "", "moved tree");
    log.Clear();
    service.update.UpdateProject("db1");
    findings.Expect(log.Contains("info: update.cpp:248 'db1' has been up to date"),
                    "the moved database is not up to date");

    // /volume3 leaves and only the small volume is left: updates stop.
    log.Clear();
    service.volumes.UnmountVolumeEvent("/volume3");
    findings.Equal(service.config->GetCurVolume(), "", "volume with none suitable");
    findings.Expect(
        volume_lines() == std::vector<std::string>{"info: volume_handler.cpp:87 Autoupdate for DBs "
                                                   "using volume is going to be disabled normally: "
                                                   "Cannot find suitable volume."},
        "lines for the unmount without a suitable volume");
    findings.Expect(umount("/volume3") == 0, "umount /volume3");

    // One byte short of the reserved space: not adopted. Exactly enough: adopted.
    VESKVolInfo small{};
    findings.Equal(VESKMountVolInfoGet("/volume1", &small), 0, "InfoGet /volume1");
    WriteFile(databases_local, "{\"db1\": {\"min_rsv_space_inbytes\": " +
                                   std::to_string(small.avail_bytes + 1) + "}}");
    log.Clear();
    service.volumes.MountVolumeEvent("/volume1");
    findings.Equal(service.config->GetCurVolume(), "", "volume after an unsuitable mount");
    findings.Equal(volume_lines().size(), 0u, "lines for an unsuitable mount");
    WriteFile(databases_local,
              "{\"db1\": {\"min_rsv_space_inbytes\": " + std::to_string(small.avail_bytes) + "}}");
    service.volumes.MountVolumeEvent("/volume1");
    findings.Equal(service.config->GetCurVolume(), "/volume1", "volume after a suitable mount");
    findings.Expect(fs::is_directory(main_dir("/volume1")), "no main directory on /volume1");

    // The status still names the installed version; the repair brings the files.
    service.update.FixProject("db1");
    findings.Equal(CompareTrees(main_dir("/volume1") + "/db1", source), "", "repaired tree");
  });
  for (const char* point : {"/volume1", "/volume2", "/volume3"})
    EXPECT_TRUE(fs::is_empty(point)) << point << " is not empty on the host";
}

}  // namespace
