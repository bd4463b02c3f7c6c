// The locks within one process: FileLock and the exported reader lock (their
// files, descriptors, messages and log lines). Between processes: lock_process_test.
#include "dataupdate/file_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <optional>

#include "dataupdate/project_lock.h"
#include "forked_child.h"
#include "test_support.h"

using vesk::dataupdate::FileLock;
using namespace vesk::test;

namespace {

// The descriptor of this process that has `path` open, if any.
std::optional<int> DescriptorOf(const std::string& path) {
  std::optional<int> found;  // the last one, so that a leaked second one is seen
  for (const auto& entry : boost::filesystem::directory_iterator("/proc/self/fd")) {
    boost::system::error_code ec;
    if (boost::filesystem::read_symlink(entry.path(), ec).string() == path)
      found = std::stoi(entry.path().filename().string());
  }
  return found;
}

}  // namespace

TEST(FileLock, CreatesItsFileHoldsItAloneAndLogsAcquireAndRelease) {
  TempDir dir;
  LogCapture log;
  const mode_t mask = umask(0);
  const std::string path = dir / "run/data_update/update_any.lock";
  {
    FileLock lock(path, 3);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    const std::optional<int> fd = DescriptorOf(path);
    ASSERT_TRUE(fd.has_value());
    EXPECT_TRUE(fcntl(*fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_UPDATE_ERROR(FileLock second(path, 0), "Fail to lock " + path);
    EXPECT_EQ(DescriptorOf(path), fd) << "the failed attempt closed its own descriptor only";
  }
  umask(mask);
  EXPECT_FALSE(DescriptorOf(path).has_value());
  EXPECT_TRUE(Exists(path)) << "the lock file is never deleted";
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                             "info: file_lock.cpp:44 Acquire lock on file: " + path,
                             "info: file_lock.cpp:53 Release lock on file: " + path,
                         }))
      << "the failed attempt logs nothing";
}

TEST(ProjectLock, ReadersShareADescriptorAndEveryOtherCaseIsMinusTwoAndLogged) {
  Sandbox sandbox;
  sandbox.Write("/usr/share/data_update/databases.conf",
                R"({"db1": {"install_dest": "%ROOTFS%"}, "db2": {}})");
  const auto lock_path = [&](const std::string& id) {
    return sandbox.Path("/run/data_update/using_" + id + ".lock");
  };
  { FileLock writer(lock_path("nope"), 0); }  // the directory exists: only the file is missing
  { FileLock writer(lock_path("db1"), 0); }
  LogCapture log;
  EXPECT_EQ(VESKDBUDGetFileLock("db2", 0), -2);
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"err: project_lock.cpp:55 Failed to open lock "
                                                   "file: " +
                                                   lock_path("db2")}));
  EXPECT_FALSE(Exists(lock_path("db2"))) << "a reader never creates the lock file";

  log.Clear();
  EXPECT_EQ(VESKDBUDGetFileLock("nope", 0), -2);
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                             "err: project_lock.cpp:30 Failed to check supported: "
                             "Project nope not supported",
                             "err: project_lock.cpp:49 [nope] is not supported, skip getting lock",
                         }));

  log.Clear();
  const int first = VESKDBUDGetFileLock("db1", 0);
  const int second = VESKDBUDGetFileLock("db1", 0);
  ASSERT_GE(first, 0);
  ASSERT_GE(second, 0) << "readers share the lock";
  EXPECT_TRUE(fcntl(first, F_GETFD) & FD_CLOEXEC);
  VESKDBUDReleaseFileLock(first);
  EXPECT_EQ(fcntl(first, F_GETFD), -1) << "released descriptors are closed";
  VESKDBUDReleaseFileLock(second);
  EXPECT_TRUE(log.Matching("project_lock.cpp").empty());

  VESKDBUDReleaseFileLock(-1);
  VESKDBUDReleaseFileLock(second);  // no longer an open file
  EXPECT_EQ(log.Matching("project_lock.cpp"),
            (std::vector<std::string>{"err: project_lock.cpp:78 Failed to release file lock"}));
}
