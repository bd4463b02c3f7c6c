// Copies on a file system with reflinks: a real XFS image mounted through a loop
// device in a private mount namespace.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "dataupdate/io_utils.h"
#include "forked_child.h"
#include "test_support.h"
#include "unique_fd.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

// Whether the first extent of `path` shares its blocks with another file.
bool FirstExtentShared(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  // A fiemap header followed by room for one extent, suitably aligned.
  std::vector<std::uint64_t> storage((sizeof(fiemap) + sizeof(fiemap_extent)) / 8 + 1, 0);
  auto* map = reinterpret_cast<fiemap*>(storage.data());
  map->fm_length = FIEMAP_MAX_OFFSET;
  map->fm_extent_count = 1;
  return fd && ioctl(fd.get(), FS_IOC_FIEMAP, map) == 0 && map->fm_mapped_extents == 1 &&
         (map->fm_extents[0].fe_flags & FIEMAP_EXTENT_SHARED) != 0;
}

TEST(ReflinkCopy, ACopyOnXfsSharesTheExtentsAndOneToAnotherFileSystemIsWrittenOut) {
  TempDir dir;
  InMountNamespace([&](const Findings& findings) {
    // XFS needs 300 MiB at least; the image is sparse.
    const std::string image = dir / "xfs.img", mnt = dir / "mnt";
    WriteFile(image, "");
    WriteFile(mnt + "/.mount-point", "");
    const std::string make_and_mount = "mkfs.xfs -q -m reflink=1 " + image + " && mount -o loop " +
                                       image + " " + mnt + " 2>/dev/null";
    if (truncate(image.c_str(), 320 << 20) != 0 || std::system(make_and_mount.c_str()) != 0)
      throw MachineLacks("no XFS image could be made and mounted through a loop device");

    const std::string data = Pseudorandom(3 * 1024 * 1024 + 5, 7);
    WriteFile(mnt + "/installed.db", data);
    const IOUtils io;
    io.CopyFile(mnt + "/installed.db", mnt + "/sum/copy.db");
    findings.Expect(ReadFile(mnt + "/sum/copy.db") == data, "the reflinked copy differs");
    findings.Expect(FirstExtentShared(mnt + "/sum/copy.db"),
                    "the copy on XFS does not share the original's extents");
    io.CopyFile(mnt + "/installed.db", dir / "outside.db");
    findings.Expect(ReadFile(dir / "outside.db") == data,
                    "the copy to another file system differs");
    findings.Expect(!FirstExtentShared(dir / "outside.db"), "a copy elsewhere shares extents");
  });
}

}  // namespace
