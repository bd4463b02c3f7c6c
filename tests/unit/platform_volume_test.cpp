// The data volumes: the mount table's parsing and the volume functions over
// VESK_VOLUMES directories and the host's own mounts.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "mountinfo.h"
#include "test_support.h"
#include "vesk/mount_vol.h"
#include "vlib/vlibc.h"

using namespace vesk::platform;
using namespace vesk::test;

namespace {

using VolumeList = std::unique_ptr<VESKVolInfo, void (*)(VESKVolInfo*)>;

// "<mount_path> mounted=<0|1> statvfs=<0|1> rw=<0|1> policy=<0|1>"
std::string Describe(const VESKVolInfo& r) {
  return std::string(r.mount_path) + " mounted=" + std::to_string(r.mounted) +
         " statvfs=" + std::to_string(r.stat_ready) +
         " rw=" + std::to_string(r.flags & VESK_VOL_FLAG_RW) +
         " policy=" + std::to_string(VESKVolumeServicePolicy(&r) != 0);
}

TEST(MountInfo, ParsesUnescapesAndDropsMalformedAndHiddenMounts) {
  EXPECT_EQ(UnescapeMountField("/a\\040b\\011c\\134d\\04"), "/a b\tc\\d\\04");
  EXPECT_EQ(UnescapeMountField("/x\\999y"), "/x\\999y");
  const auto entries = ParseMountInfo(
      "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
      "35 22 0:31 / /volume1 rw,nosuid shared:5 master:2 - tmpfs tmpfs rw\n"
      "36 35 0:32 / /volume1 ro - nfs4 server:/export rw\n"  // stacked on 35
      "37 36 0:33 / /volume1/a\\040b rw - xfs c rw\n"
      "garbage line\n"
      "38 22 0:34 / /no/separator rw shared:9 tmpfs tmpfs rw\n"
      "x 22 0:35 / /bad/id rw - tmpfs tmpfs rw\n");
  const auto visible = VisibleMounts(entries);
  std::vector<std::string> seen;
  for (const MountEntry& e : visible)
    seen.push_back(std::to_string(e.id) + " " + std::to_string(e.parent) + " " + e.mount_point +
                   " " + e.options + " " + e.fs_type);
  EXPECT_EQ(seen, (std::vector<std::string>{"22 1 / rw,relatime ext4", "36 35 /volume1 ro nfs4",
                                            "37 36 /volume1/a b rw xfs"}));
  const std::pair<const char*, const char*> holders[] = {{"/volume1", "nfs4"},
                                                         {"/volume1/x/y", "nfs4"},
                                                         {"/volume1/a b/z", "xfs"},
                                                         {"/volume10", "ext4"},
                                                         {"/volume1/a bc", "nfs4"}};
  for (const auto& [path, fs_type] : holders)
    EXPECT_EQ(HoldingMount(visible, path)->fs_type, fs_type) << path;
  EXPECT_EQ(HoldingMount({}, "/x"), nullptr);
}

TEST(MountInfo, DataVolumesAreSlashVolumeAndDigitsAndServicesShunTheNetwork) {
  for (const char* path : {"/volume", "/volume1", "/volume007"})
    EXPECT_TRUE(IsDataVolumePath(path)) << path;
  for (const char* path : {"/volumeX", "/volume1a", "/volume1/", "/volume1/sub", "/data/volume1",
                           "volume1", "/volum", "/Volume1", ""})
    EXPECT_FALSE(IsDataVolumePath(path)) << path;
  const std::pair<const char*, int> policies[] = {
      {"ext4", 1}, {"tmpfs", 1}, {"", 1},     {"nfs", 0}, {"nfs4", 0},       {"cifs", 0},
      {"smb3", 0}, {"9p", 0},    {"ceph", 0}, {"afs", 0}, {"fuse.sshfs", 0}, {"lustre", 0}};
  for (const auto& [fs_type, allowed] : policies) {
    VESKVolInfo info{};
    info.flags = VESK_VOL_FLAG_RW;
    std::strcpy(info.fs_type, fs_type);
    EXPECT_EQ(VESKVolumeServicePolicy(&info), allowed) << fs_type;
    info.flags = 0;  // read-only
    EXPECT_EQ(VESKVolumeServicePolicy(&info), 0) << fs_type;
  }
}

TEST(ConfiguredVolumes, ExactlyTheNamedDirectoriesInOrderWithTheirUsableSpace) {
  TempDir dir;
  const std::string a = dir / "a", b = dir / "b", missing = dir / "missing";
  WriteFile(a + "/f", "");
  WriteFile(b + "/f", "");
  ScopedEnv volumes("VESK_VOLUMES", (b + "::" + missing + ":" + a + ":").c_str());
  VolumeList list(VESKMountVolAllEnum(0, 1), VESKMountVolInfoFree);
  std::vector<std::string> described;
  for (const VESKVolInfo* r = list.get(); r != nullptr; r = r->next)
    described.push_back(Describe(*r));
  EXPECT_EQ(described, (std::vector<std::string>{b + " mounted=1 statvfs=1 rw=1 policy=1",
                                                 missing + " mounted=0 statvfs=0 rw=0 policy=0",
                                                 a + " mounted=1 statvfs=1 rw=1 policy=1"}));
  // Space an unprivileged writer can use (f_bavail, not f_bfree); other tests
  // write to the same file system meanwhile: 64 MiB of drift are allowed.
  struct statvfs fs;
  ASSERT_EQ(statvfs(a.c_str(), &fs), 0);
  ASSERT_NE(list, nullptr);
  EXPECT_NEAR(static_cast<double>(list->avail_bytes),
              static_cast<double>(fs.f_bavail) * static_cast<double>(fs.f_frsize), 64 << 20);
  EXPECT_EQ(list->next->avail_bytes, 0u);

  VESKVolInfo info;
  std::memset(&info, 0xff, sizeof info);
  ASSERT_EQ(VESKMountVolInfoGet((a + "/").c_str(), &info), 0);
  EXPECT_EQ(Describe(info), a + " mounted=1 statvfs=1 rw=1 policy=1");
  EXPECT_EQ(info.flags, VESK_VOL_FLAG_RW);
  EXPECT_EQ(info.next, nullptr);
  const std::pair<std::string, int> refused[] = {{missing, ENOENT}, {dir.path(), ENODEV}};
  for (const auto& [path, error] : refused) {
    EXPECT_EQ(VESKMountVolInfoGet(path.c_str(), &info), -1) << path;
    EXPECT_EQ(VLIBCErrGet(), error) << path;
  }
  ScopedEnv none("VESK_VOLUMES", "");  // no volumes, and no error
  EXPECT_EQ(VESKMountVolAllEnum(0, 1), nullptr);
  EXPECT_EQ(VLIBCErrGet(), 0);
}

}  // namespace
