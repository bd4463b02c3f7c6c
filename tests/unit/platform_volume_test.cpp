#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "mountinfo.h"
#include "test_support.h"
#include "vesk/mount_vol.h"
#include "vlib/vlibc.h"

using vesk::platform::MountEntry;
using vesk::test::ScopedEnv;
using vesk::test::TempDir;

namespace {

struct ListFree {
  void operator()(VESKVolInfo* list) const { VESKMountVolInfoFree(list); }
};
using VolumeList = std::unique_ptr<VESKVolInfo, ListFree>;

std::vector<const VESKVolInfo*> Records(const VolumeList& list) {
  std::vector<const VESKVolInfo*> records;
  for (const VESKVolInfo* r = list.get(); r != nullptr; r = r->next)
    records.push_back(r);
  return records;
}

VESKVolInfo Record(const char* fs_type, unsigned int flags) {
  VESKVolInfo info{};
  info.flags = flags;
  info.mounted = 1;
  info.stat_ready = 1;
  std::strcpy(info.mount_path, "/volume1");
  std::strcpy(info.fs_type, fs_type);
  return info;
}

TEST(MountInfo, UnescapesTheKernelsOctalEscapes) {
  using vesk::platform::UnescapeMountField;
  EXPECT_EQ(UnescapeMountField("/mnt/my\\040disk"), "/mnt/my disk");
  EXPECT_EQ(UnescapeMountField("/a\\011b\\012c\\134d"), "/a\tb\nc\\d");
  EXPECT_EQ(UnescapeMountField("/end\\04"), "/end\\04");  // too short: kept as is
  EXPECT_EQ(UnescapeMountField("/x\\999y"), "/x\\999y");  // not octal: kept as is
  EXPECT_EQ(UnescapeMountField("\\040\\040"), "  ");
}

TEST(MountInfo, ParsesOptionalFieldsAndSkipsMalformedLines) {
  const std::string text =
      "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw,errors=remount-ro\n"
      "35 22 0:31 / /volume1 rw,nosuid shared:5 master:2 - tmpfs tmpfs rw,size=4096k\n"
      "36 22 0:32 / /mnt/my\\040disk ro,relatime - nfs4 server:/export rw,vers=4.2\n"
      "garbage line\n"
      "37 22 0:33 / /no/separator rw shared:9 tmpfs tmpfs rw\n"
      "x 22 0:34 / /bad/id rw - tmpfs tmpfs rw\n";
  const auto entries = vesk::platform::ParseMountInfo(text);
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].mount_point, "/");
  EXPECT_EQ(entries[0].fs_type, "ext4");
  EXPECT_EQ(entries[1].id, 35);
  EXPECT_EQ(entries[1].parent, 22);
  EXPECT_EQ(entries[1].mount_point, "/volume1");
  EXPECT_EQ(entries[1].options, "rw,nosuid");
  EXPECT_EQ(entries[1].fs_type, "tmpfs");
  EXPECT_EQ(entries[2].mount_point, "/mnt/my disk");
  EXPECT_EQ(entries[2].options, "ro,relatime");
  EXPECT_EQ(entries[2].fs_type, "nfs4");
}

TEST(MountInfo, AMountHiddenUnderAnotherOnTheSamePointIsDropped) {
  const std::string text =
      "22 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
      "40 22 0:40 / /volume1 rw - tmpfs a rw\n"
      "41 40 0:41 / /volume1 rw - ext4 b rw\n"      // stacked on 40
      "42 41 0:42 / /volume1/sub rw - xfs c rw\n";  // below the top, not stacked
  const auto visible = vesk::platform::VisibleMounts(vesk::platform::ParseMountInfo(text));
  std::vector<long> ids;
  for (const auto& entry : visible)
    ids.push_back(entry.id);
  EXPECT_EQ(ids, (std::vector<long>{22, 41, 42}));
}

TEST(MountInfo, TheHoldingMountIsTheLongestParentDirectory) {
  const auto visible = vesk::platform::ParseMountInfo(
      "1 1 8:1 / / rw - ext4 a rw\n"
      "2 1 0:2 / /volume1 rw - tmpfs b rw\n"
      "3 2 0:3 / /volume1/deep rw - xfs c rw\n");
  using vesk::platform::HoldingMount;
  EXPECT_EQ(HoldingMount(visible, "/volume1")->fs_type, "tmpfs");
  EXPECT_EQ(HoldingMount(visible, "/volume1/x/y")->fs_type, "tmpfs");
  EXPECT_EQ(HoldingMount(visible, "/volume1/deep/z")->fs_type, "xfs");
  EXPECT_EQ(HoldingMount(visible, "/volume10")->fs_type, "ext4");  // not below /volume1
  EXPECT_EQ(HoldingMount(visible, "/volume1/deeper")->fs_type, "tmpfs");
  EXPECT_EQ(HoldingMount({}, "/x"), nullptr);
}

TEST(MountInfo, DataVolumesAreSlashVolumeAndDigitsOnly) {
  using vesk::platform::IsDataVolumePath;
  for (const char* yes : {"/volume", "/volume1", "/volume12", "/volume007"})
    EXPECT_TRUE(IsDataVolumePath(yes)) << yes;
  for (const char* no : {"/volumeX", "/volume1a", "/volume1/", "/volume1/sub", "/data/volume1",
                         "volume1", "/volum", "/Volume1", "/volume 1", ""})
    EXPECT_FALSE(IsDataVolumePath(no)) << no;
}

TEST(VolumePolicy, RefusesNetworkFileSystemsAndReadOnlyMounts) {
  for (const char* local : {"ext4", "xfs", "btrfs", "tmpfs", ""}) {
    VESKVolInfo info = Record(local, VESK_VOL_FLAG_RW);
    EXPECT_NE(VESKVolumeServicePolicy(&info), 0) << local;
  }
  for (const char* network : {"nfs", "nfs4", "cifs", "smb3", "smbfs", "fuse.sshfs", "9p", "ceph",
                              "glusterfs", "fuse.glusterfs", "afs", "lustre"}) {
    VESKVolInfo info = Record(network, VESK_VOL_FLAG_RW);
    EXPECT_EQ(VESKVolumeServicePolicy(&info), 0) << network;
  }
  VESKVolInfo read_only = Record("ext4", 0);
  EXPECT_EQ(VESKVolumeServicePolicy(&read_only), 0);
  EXPECT_EQ(VESKVolumeServicePolicy(nullptr), 0);
}

// VESK_VOLUMES over plain directories: no mounting, no privileges.
class ConfiguredVolumes : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir(a_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(b_.c_str(), 0755), 0);
  }
  TempDir dir_;
  std::string a_ = dir_ / "a";
  std::string b_ = dir_ / "b";
  std::string missing_ = dir_ / "missing";
};

TEST_F(ConfiguredVolumes, ListsExactlyTheNamedDirectoriesInOrderOrNone) {
  ScopedEnv volumes("VESK_VOLUMES", (b_ + "::" + missing_ + ":" + a_ + ":").c_str());
  VolumeList list(VESKMountVolAllEnum(0, 1));
  ASSERT_NE(list, nullptr) << VLIBCErrGet();
  const auto records = Records(list);
  ASSERT_EQ(records.size(), 3u);
  EXPECT_STREQ(records[0]->mount_path, b_.c_str());
  EXPECT_STREQ(records[1]->mount_path, missing_.c_str());
  EXPECT_STREQ(records[2]->mount_path, a_.c_str());

  struct statvfs fs;
  ASSERT_EQ(statvfs(a_.c_str(), &fs), 0);
  const unsigned long long expected = static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
  for (const VESKVolInfo* r : {records[0], records[2]}) {
    EXPECT_EQ(r->flags & VESK_VOL_FLAG_RW, VESK_VOL_FLAG_RW);
    EXPECT_EQ(r->mounted, 1);
    EXPECT_EQ(r->stat_ready, 1);
    // Other tests write to the same file system meanwhile: allow 64 MiB of drift.
    EXPECT_NEAR(static_cast<double>(r->avail_bytes), static_cast<double>(expected),
                64.0 * (1 << 20));
    EXPECT_STRNE(r->fs_type, "");
    EXPECT_NE(VESKVolumeServicePolicy(r), 0);
  }
  const VESKVolInfo* gone = records[1];
  EXPECT_EQ(gone->mounted, 0);
  EXPECT_EQ(gone->stat_ready, 0);
  EXPECT_EQ(gone->flags & VESK_VOL_FLAG_RW, 0u);
  EXPECT_EQ(gone->avail_bytes, 0u);
  EXPECT_EQ(VESKVolumeServicePolicy(gone), 0);

  ScopedEnv none("VESK_VOLUMES", "");  // no volumes, and no error
  EXPECT_EQ(VESKMountVolAllEnum(0, 1), nullptr);
  EXPECT_EQ(VLIBCErrGet(), 0);
}

TEST_F(ConfiguredVolumes, InfoGetAnswersOnlyForANamedExistingDirectory) {
  ScopedEnv volumes("VESK_VOLUMES", (a_ + ":" + missing_).c_str());
  VESKVolInfo info;
  std::memset(&info, 0xff, sizeof info);
  ASSERT_EQ(VESKMountVolInfoGet(a_.c_str(), &info), 0);
  EXPECT_STREQ(info.mount_path, a_.c_str());
  EXPECT_EQ(info.next, nullptr);
  EXPECT_EQ(info.mounted, 1);
  EXPECT_EQ(info.stat_ready, 1);
  EXPECT_EQ(info.flags, VESK_VOL_FLAG_RW);
  EXPECT_EQ(VESKMountVolInfoGet((a_ + "/").c_str(), &info), 0);  // same directory

  EXPECT_EQ(VESKMountVolInfoGet(missing_.c_str(), &info), -1);
  EXPECT_EQ(VLIBCErrGet(), ENOENT);
  EXPECT_EQ(VESKMountVolInfoGet(b_.c_str(), &info), -1);  // exists but is not named
  EXPECT_EQ(VLIBCErrGet(), ENODEV);
  EXPECT_EQ(VESKMountVolInfoGet(nullptr, &info), -1);
  EXPECT_EQ(VESKMountVolInfoGet(a_.c_str(), nullptr), -1);
}

TEST_F(ConfiguredVolumes, ADirectoryThisProcessCannotWriteIsNotReadWrite) {
  if (geteuid() == 0)
    GTEST_SKIP() << "root writes through directory permissions; the read-only bind mount case "
                    "runs in the mount namespace system test";
  ASSERT_EQ(chmod(a_.c_str(), 0555), 0);
  ScopedEnv volumes("VESK_VOLUMES", a_.c_str());
  VESKVolInfo info{};
  ASSERT_EQ(VESKMountVolInfoGet(a_.c_str(), &info), 0);
  EXPECT_EQ(info.mounted, 1);
  EXPECT_EQ(info.stat_ready, 1);
  EXPECT_EQ(info.flags & VESK_VOL_FLAG_RW, 0u);
  EXPECT_EQ(VESKVolumeServicePolicy(&info), 0);
  chmod(a_.c_str(), 0755);
}

TEST(HostVolumes, OnlyVolumeMountPointsAreListedAndOthersRefused) {
  ScopedEnv unset("VESK_VOLUMES", nullptr);
  VolumeList list(VESKMountVolAllEnum(0, 1));
  if (!list) {
    EXPECT_EQ(VLIBCErrGet(), 0) << "enumeration failed rather than finding none";
  }
  for (const VESKVolInfo* r : Records(list)) {
    EXPECT_TRUE(vesk::platform::IsDataVolumePath(r->mount_path)) << r->mount_path;
    EXPECT_EQ(r->mounted, 1);
  }
  VESKVolInfo info{};
  EXPECT_EQ(VESKMountVolInfoGet("/tmp", &info), -1);
  EXPECT_EQ(VLIBCErrGet(), ENODEV);
  EXPECT_EQ(VESKMountVolInfoGet("/volume987654", &info), -1);  // a volume name, not mounted
  EXPECT_EQ(VLIBCErrGet(), ENOENT);
}

}  // namespace
