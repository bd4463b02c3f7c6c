// Volume enumeration over small tmpfs volumes mounted in a private mount
// namespace.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>

#include "forked_child.h"
#include "vesk/mount_vol.h"
#include "vlib/vlibc.h"

using namespace vesk::test;

namespace {

constexpr unsigned long long kMiB = 1ull << 20;

// `value` is at most 64 KiB (the file system's own use) below `high`.
void Near(const Findings& findings, unsigned long long value, unsigned long long high,
          const std::string& what) {
  findings.Expect(value + 64 * 1024 >= high && value <= high,
                  what + ": " + std::to_string(value) + " not just below " + std::to_string(high));
}

bool MountTmpfs(const Findings& findings, const std::string& where, const char* options,
                unsigned long flags = 0) {
  if (mount("tmpfs", where.c_str(), "tmpfs", flags, options) == 0)
    return true;
  findings.Expect(false, "mount tmpfs at " + where + ": " + std::strerror(errno));
  return false;
}

std::map<std::string, VESKVolInfo> Enumerate(const Findings& findings) {
  std::map<std::string, VESKVolInfo> found;
  VESKVolInfo* list = VESKMountVolAllEnum(0, 1);
  findings.Expect(list != nullptr,
                  "enumeration returned nothing, error " + std::to_string(VLIBCErrGet()));
  for (const VESKVolInfo* r = list; r != nullptr; r = r->next) {
    findings.Expect(found.count(r->mount_path) == 0, std::string("listed twice: ") + r->mount_path);
    found[r->mount_path] = *r;
  }
  VESKMountVolInfoFree(list);
  return found;
}

// "mounted=<0|1> statvfs=<0|1> rw=<0|1> policy=<0|1> <fs_type>"
std::string Describe(const VESKVolInfo& r) {
  return "mounted=" + std::to_string(r.mounted) + " statvfs=" + std::to_string(r.stat_ready) +
         " rw=" + std::to_string(r.flags & VESK_VOL_FLAG_RW) +
         " policy=" + std::to_string(VESKVolumeServicePolicy(&r) != 0) + " " + r.fs_type;
}

TEST(VolumeNamespace, DataVolumesAreTheVolumeMountPointsWithTheirSpaceAndModes) {
  if (geteuid() != 0)
    GTEST_SKIP() << "mounting needs root (euid " << geteuid() << ")";
  HostMountPoints points({"/volume", "/volume1", "/volume2", "/volume3", "/volumeX", "/volume7x"});
  if (!points.error().empty())
    GTEST_SKIP() << "cannot create mount points: " << points.error();

  InMountNamespace([](const Findings& checks) {
    unsetenv("VESK_VOLUMES");  // the mount table decides
    if (!MountTmpfs(checks, "/volume1", "size=4m") || !MountTmpfs(checks, "/volume2", "size=8m") ||
        !MountTmpfs(checks, "/volume3", "size=4m", MS_RDONLY) ||
        !MountTmpfs(checks, "/volume", "size=2m") || !MountTmpfs(checks, "/volumeX", "size=1m") ||
        !MountTmpfs(checks, "/volume7x", "size=1m"))
      return;

    auto found = Enumerate(checks);
    for (const auto& [path, record] : found) {
      checks.Expect(path.rfind("/volume", 0) == 0 &&
                        path.find_first_not_of("0123456789", 7) == std::string::npos,
                    "not a data volume but listed: " + path);
    }
    checks.Equal(found.count("/volumeX"), 0u, "/volumeX listed");
    checks.Equal(found.count("/volume7x"), 0u, "/volume7x listed");
    for (const char* path : {"/volume", "/volume1", "/volume2", "/volume3"})
      checks.Equal(found.count(path), 1u, std::string(path) + " listed");
    if (found.size() < 4)
      return;

    checks.Equal(Describe(found["/volume1"]), "mounted=1 statvfs=1 rw=1 policy=1 tmpfs",
                 "/volume1");
    checks.Equal(Describe(found["/volume3"]), "mounted=1 statvfs=1 rw=0 policy=0 tmpfs",
                 "/volume3 (read-only)");
    Near(checks, found["/volume1"].avail_bytes, 4 * kMiB, "/volume1 avail_bytes");
    Near(checks, found["/volume2"].avail_bytes, 8 * kMiB, "/volume2 avail_bytes");
    Near(checks, found["/volume"].avail_bytes, 2 * kMiB, "/volume avail_bytes");

    // Space used on the volume shows in the next answer.
    const int fd = open("/volume1/filler", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const std::string block(1 << 20, 'x');
    checks.Expect(
        fd >= 0 && write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size()),
        "writing 1 MiB to /volume1");
    if (fd >= 0)
      close(fd);
    VESKVolInfo info{};
    checks.Equal(VESKMountVolInfoGet("/volume1", &info), 0, "InfoGet /volume1");
    Near(checks, info.avail_bytes, 3 * kMiB, "/volume1 after 1 MiB");
    checks.Equal(std::string(info.mount_path), std::string("/volume1"), "InfoGet path");

    checks.Equal(VESKMountVolInfoGet("/volumeX", &info), -1, "InfoGet /volumeX");
    checks.Equal(VLIBCErrGet(), ENODEV, "InfoGet /volumeX error");

    // A volume mounted over another is listed once, with the top mount's figures.
    if (MountTmpfs(checks, "/volume2", "size=1m")) {
      auto stacked = Enumerate(checks);
      Near(checks, stacked["/volume2"].avail_bytes, kMiB, "/volume2 stacked avail_bytes");
      umount("/volume2");
    }
    // Unmounted, a volume leaves the list and InfoGet fails.
    checks.Equal(umount("/volume2"), 0, "umount /volume2");
    checks.Equal(Enumerate(checks).count("/volume2"), 0u, "/volume2 listed after umount");
    checks.Equal(VESKMountVolInfoGet("/volume2", &info), -1, "InfoGet unmounted /volume2");
    checks.Equal(VLIBCErrGet(), ENOENT, "InfoGet unmounted /volume2 error");
  });
}

TEST(VolumeNamespace, ConfiguredVolumesSeeReadOnlyBindsAndTheirFileSystemType) {
  TempDir dir;
  const std::string spaced = dir / "data vol";  // "\040" in mountinfo
  const std::string read_only = dir / "ro";
  const std::string plain = dir / "plain";
  for (const auto& path : {spaced, read_only, plain})
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);

  InMountNamespace([&](const Findings& checks) {
    if (!MountTmpfs(checks, spaced, "size=4m"))
      return;
    if (mount(read_only.c_str(), read_only.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        mount(nullptr, read_only.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) !=
            0) {
      checks.Expect(false, std::string("read-only bind: ") + std::strerror(errno));
      return;
    }
    setenv("VESK_VOLUMES", (spaced + ":" + read_only + ":" + plain).c_str(), 1);

    auto found = Enumerate(checks);
    checks.Equal(found.size(), 3u, "configured volumes listed");
    checks.Equal(Describe(found[spaced]), "mounted=1 statvfs=1 rw=1 policy=1 tmpfs",
                 "tmpfs below an escaped path");
    Near(checks, found[spaced].avail_bytes, 4 * kMiB, "tmpfs avail_bytes");
    checks.Equal(Describe(found[read_only]),
                 std::string("mounted=1 statvfs=1 rw=0 policy=0 ") + found[read_only].fs_type,
                 "read-only bind");
    checks.Equal(Describe(found[plain]),
                 std::string("mounted=1 statvfs=1 rw=1 policy=1 ") + found[plain].fs_type,
                 "plain directory");
    checks.Expect(found[plain].fs_type[0] != '\0', "plain directory has no fs_type");

    VESKVolInfo info{};
    checks.Equal(VESKMountVolInfoGet(spaced.c_str(), &info), 0, "InfoGet of a path with a space");
    checks.Equal(std::string(info.fs_type), std::string("tmpfs"), "InfoGet fs_type");
  });
}

}  // namespace
