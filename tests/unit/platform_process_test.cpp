// Programs and the data volumes (real mounts: volume_test).
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <string>

#include "mountinfo.h"
#include "test_support.h"
#include "vesk/mount_vol.h"
#include "vlib/vlibc.h"

using namespace vesk::platform;
using namespace vesk::test;

TEST(PlatformExec, SuccessOnlyForExitStatusZeroArgumentsInOrderStdinEmpty) {
  std::string outcomes;  // result/last error: 0x100 + exit status, 0x200 + signal, errno
  for (const char* command : {"exit 0", "exit 1", "exit 7", "kill -9 $$", ""}) {
    const char* program = *command ? "/bin/sh" : "/nonexistent/program";
    outcomes += std::to_string(VLIBCExecl(program, 187, "-c", command, nullptr));
    outcomes += "/" + std::to_string(VLIBCErrGet()) + " ";
  }
  EXPECT_EQ(outcomes, "0/0 -1/257 -1/263 -1/521 -1/" + std::to_string(ENOENT) + " ");
  TempDir dir;
  const std::string out = dir / "out", script = "printf '%s|' \"$@\" > " + out + "; cat >> " + out;
  ASSERT_EQ(VLIBCExecl("/bin/sh", 0, "-c", script.c_str(), "sh", "a b", "", "c", nullptr), 0);
  EXPECT_EQ(ReadFile(out), "a b||c|");
  ASSERT_EQ(VLIBCExec("/bin/sh", "-c", ("echo $# > " + out).c_str(), nullptr, "ignored"), 0);
  EXPECT_EQ(ReadFile(out), "0\n");
}

std::string Describe(const VESKVolInfo& r) {
  return std::string(r.mount_path) + " mounted=" + std::to_string(r.mounted) +
         " statvfs=" + std::to_string(r.stat_ready) + " rw=" + std::to_string(r.flags) +
         " policy=" + std::to_string(VESKVolumeServicePolicy(&r)) +
         " avail=" + std::to_string(r.avail_bytes > 0) + (r.next ? "" : " last");
}

TEST(MountInfo, ParsesUnescapesAndDropsMalformedAndHiddenMounts) {
  EXPECT_EQ(UnescapeMountField("/a\\040b\\011c\\134d\\04") + UnescapeMountField("/x\\999y"),
            "/a b\tc\\d\\04/x\\999y");
  const auto visible = VisibleMounts(
      ParseMountInfo("22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
                     "35 22 0:31 / /volume1 rw,nosuid shared:5 master:2 - tmpfs tmpfs rw\n"
                     "36 35 0:32 / /volume1 ro - nfs4 server:/export rw\n"  // stacked on 35
                     "37 36 0:33 / /volume1/a\\040b rw - xfs c rw\n"
                     "garbage line\n"
                     "38 22 0:34 / /no/separator rw shared:9 tmpfs tmpfs rw\n"
                     "x 22 0:35 / /bad/id rw - tmpfs tmpfs rw\n"));
  std::string seen;
  for (const MountEntry& e : visible)
    seen += std::to_string(e.id) + " " + std::to_string(e.parent) + " " + e.mount_point + " " +
            e.options + " " + e.fs_type + ";";
  EXPECT_EQ(seen, "22 1 / rw,relatime ext4;36 35 /volume1 ro nfs4;37 36 /volume1/a b rw xfs;");
  std::string holders;
  for (const char* path : {"/volume1/x", "/volume1/a b/z", "/volume10", "/volume1/a bc"})
    holders += HoldingMount(visible, path)->fs_type + " ";
  EXPECT_EQ(holders, "nfs4 xfs ext4 nfs4 ");
  EXPECT_EQ(HoldingMount({}, "/x"), nullptr);
}

TEST(MountInfo, DataVolumesAreSlashVolumeAndDigitsAndServicesShunTheNetwork) {
  for (const char* path : {"/volume", "/volume1", "/volume007"})
    EXPECT_TRUE(IsDataVolumePath(path)) << path;
  for (const char* path : {"/volumeX", "/volume1a", "/volume1/", "/volume1/sub", "/data/volume1",
                           "volume1", "/Volume1", ""})
    EXPECT_FALSE(IsDataVolumePath(path)) << path;
  const auto policy = [](const char* fs_type, unsigned int flags) {
    VESKVolInfo info{};
    std::strcpy(info.fs_type, fs_type);
    info.flags = flags;
    return VESKVolumeServicePolicy(&info);
  };
  for (const char* local : {"ext4", "tmpfs", ""})  // read-only refused
    EXPECT_EQ(policy(local, VESK_VOL_FLAG_RW) * 2 + policy(local, 0), 2) << local;
  for (const char* network : {"nfs", "nfs4", "cifs", "smb3", "9p", "ceph", "afs", "fuse.sshfs"})
    EXPECT_EQ(policy(network, VESK_VOL_FLAG_RW), 0) << network;
}

TEST(ConfiguredVolumes, ExactlyTheNamedDirectoriesInOrderWithTheirUsableSpace) {
  TempDir dir;
  const std::string a = dir / "a", b = dir / "b", missing = dir / "missing";
  ASSERT_EQ(mkdir(a.c_str(), 0755) | mkdir(b.c_str(), 0755), 0);
  ScopedEnv volumes("VESK_VOLUMES", (b + "::" + missing + ":" + a + ":").c_str());
  std::unique_ptr<VESKVolInfo, void (*)(VESKVolInfo*)> list(VESKMountVolAllEnum(0, 1),
                                                            VESKMountVolInfoFree);
  std::string described;
  for (const VESKVolInfo* r = list.get(); r != nullptr; r = r->next)
    described += Describe(*r) + ";";
  EXPECT_EQ(described, b + " mounted=1 statvfs=1 rw=1 policy=1 avail=1;" + missing +
                           " mounted=0 statvfs=0 rw=0 policy=0 avail=0;" + a +
                           " mounted=1 statvfs=1 rw=1 policy=1 avail=1 last;");
  VESKVolInfo info;
  ASSERT_EQ(VESKMountVolInfoGet((a + "/").c_str(), &info), 0);
  EXPECT_EQ(Describe(info), a + " mounted=1 statvfs=1 rw=1 policy=1 avail=1 last");
  for (const auto& [path, error] :
       {std::pair<std::string, int>{missing, ENOENT}, {dir.path(), ENODEV}}) {
    EXPECT_EQ(VESKMountVolInfoGet(path.c_str(), &info), -1) << path;
    EXPECT_EQ(VLIBCErrGet(), error) << path;
  }
  ScopedEnv none("VESK_VOLUMES", "");  // no volumes, and no error
  EXPECT_EQ(VESKMountVolAllEnum(0, 1), nullptr);
  EXPECT_EQ(VLIBCErrGet(), 0);
}
