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
using namespace vesk::test;

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

// "<mount_path> mounted=<0|1> statvfs=<0|1> rw=<0|1> policy=<0|1>"
std::string Describe(const VESKVolInfo& r) {
  return std::string(r.mount_path) + " mounted=" + std::to_string(r.mounted) +
         " statvfs=" + std::to_string(r.stat_ready) +
         " rw=" + std::to_string(r.flags & VESK_VOL_FLAG_RW) +
         " policy=" + std::to_string(VESKVolumeServicePolicy(&r) != 0);
}

std::vector<std::string> Describe(const std::vector<MountEntry>& entries) {
  std::vector<std::string> lines;
  for (const MountEntry& e : entries) {
    lines.push_back(std::to_string(e.id) + " " + std::to_string(e.parent) + " " + e.mount_point +
                    " " + e.options + " " + e.fs_type);
  }
  return lines;
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
  EXPECT_EQ(Describe(vesk::platform::ParseMountInfo(text)),
            (std::vector<std::string>{"22 1 / rw,relatime ext4", "35 22 /volume1 rw,nosuid tmpfs",
                                      "36 22 /mnt/my disk ro,relatime nfs4"}));
}

TEST(MountInfo, AMountHiddenUnderAnotherOnTheSamePointIsDropped) {
  const std::string text =
      "22 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
      "40 22 0:40 / /volume1 rw - tmpfs a rw\n"
      "41 40 0:41 / /volume1 rw - ext4 b rw\n"      // stacked on 40
      "42 41 0:42 / /volume1/sub rw - xfs c rw\n";  // below the top, not stacked
  EXPECT_EQ(Describe(vesk::platform::VisibleMounts(vesk::platform::ParseMountInfo(text))),
            (std::vector<std::string>{"22 1 / rw ext4", "41 40 /volume1 rw ext4",
                                      "42 41 /volume1/sub rw xfs"}));
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
  std::vector<std::string> described;
  for (const VESKVolInfo* r : records)
    described.push_back(Describe(*r));
  EXPECT_EQ(described, (std::vector<std::string>{
                           b_ + " mounted=1 statvfs=1 rw=1 policy=1",
                           missing_ + " mounted=0 statvfs=0 rw=0 policy=0",
                           a_ + " mounted=1 statvfs=1 rw=1 policy=1",
                       }));
  ASSERT_EQ(records.size(), 3u);

  // Space an unprivileged writer can use: on a file system with reserved blocks
  // (tmpfs has none) this differs from the free blocks.
  struct statvfs fs;
  ASSERT_EQ(statvfs(a_.c_str(), &fs), 0);
  const unsigned long long expected = static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
  for (const VESKVolInfo* r : {records[0], records[2]}) {
    // Other tests write to the same file system meanwhile: allow 64 MiB of drift.
    EXPECT_NEAR(static_cast<double>(r->avail_bytes), static_cast<double>(expected),
                64.0 * (1 << 20));
  }
  EXPECT_EQ(records[1]->avail_bytes, 0u);

  ScopedEnv none("VESK_VOLUMES", "");  // no volumes, and no error
  EXPECT_EQ(VESKMountVolAllEnum(0, 1), nullptr);
  EXPECT_EQ(VLIBCErrGet(), 0);
}

TEST_F(ConfiguredVolumes, InfoGetAnswersOnlyForANamedExistingDirectory) {
  ScopedEnv volumes("VESK_VOLUMES", (a_ + ":" + missing_).c_str());
  VESKVolInfo info;
  std::memset(&info, 0xff, sizeof info);
  ASSERT_EQ(VESKMountVolInfoGet(a_.c_str(), &info), 0);
  EXPECT_EQ(Describe(info), a_ + " mounted=1 statvfs=1 rw=1 policy=1");
  EXPECT_EQ(info.flags, VESK_VOL_FLAG_RW);
  EXPECT_EQ(info.next, nullptr);
  EXPECT_EQ(VESKMountVolInfoGet((a_ + "/").c_str(), &info), 0);  // same directory

  EXPECT_EQ(VESKMountVolInfoGet(missing_.c_str(), &info), -1);
  EXPECT_EQ(VLIBCErrGet(), ENOENT);
  EXPECT_EQ(VESKMountVolInfoGet(b_.c_str(), &info), -1);  // exists but is not named
  EXPECT_EQ(VLIBCErrGet(), ENODEV);
  EXPECT_EQ(VESKMountVolInfoGet(nullptr, &info), -1);
  EXPECT_EQ(VESKMountVolInfoGet(a_.c_str(), nullptr), -1);
}

// Without root the mount-namespace system test is skipped; these two keep the
// host's enumeration and the write check covered there.
TEST_F(ConfiguredVolumes, ADirectoryThisProcessCannotWriteIsNotReadWrite) {
  if (geteuid() == 0)
    GTEST_SKIP() << "root writes through directory permissions; the read-only bind mount case "
                    "runs in the mount namespace system test";
  ASSERT_EQ(chmod(a_.c_str(), 0555), 0);
  ScopedEnv volumes("VESK_VOLUMES", a_.c_str());
  VESKVolInfo info{};
  ASSERT_EQ(VESKMountVolInfoGet(a_.c_str(), &info), 0);
  EXPECT_EQ(Describe(info), a_ + " mounted=1 statvfs=1 rw=0 policy=0");
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
