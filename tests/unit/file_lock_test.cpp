// The locks within one process: FileLock (what it creates, its messages and log
// lines, a second lock on the same path conflicting like any other process's)
// and the exported reader lock (the -2 cases with their log lines, the shared
// descriptor it returns, release). Between processes: lock_process_test.
#include "dataupdate/file_lock.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <memory>
#include <optional>

#include "dataupdate/project_lock.h"
#include "forked_child.h"
#include "test_support.h"

using vesk::dataupdate::FileLock;
using namespace vesk::test;

namespace {

// The descriptor of this process that has `path` open, if any.
std::optional<int> DescriptorOf(const std::string& path) {
  std::optional<int> found;
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir("/proc/self/fd"), closedir);
  while (dirent* entry = readdir(dir.get())) {
    char target[4096];
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    if (n > 0 && std::string(target, static_cast<size_t>(n)) == path)
      found = std::atoi(entry->d_name);
  }
  return found;
}

class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : old_(umask(mask)) {}
  ~ScopedUmask() { umask(old_); }

 private:
  mode_t old_;
};

class ProjectLockTest : public ::testing::Test {
 protected:
  ProjectLockTest() {
    sandbox.Write("/usr/share/data_update/databases.conf",
                  R"({"db1": {"install_dest": "%ROOTFS%"}, "db2": {}})");
  }

  // What an update leaves behind: the lock file, created by a writer.
  void CreateLockFile(const std::string& id) const { FileLock writer(LockPath(id), 0); }

  std::string LockPath(const std::string& id) const {
    return sandbox.Path("/run/data_update/using_" + id + ".lock");
  }

  Sandbox sandbox;
};

}  // namespace

TEST(FileLock, CreatesItsFileMode0644AndHoldsACloseOnExecDescriptorUntilDestroyed) {
  TempDir dir;
  LogCapture log;
  ScopedUmask open_umask(0);
  const std::string path = dir / "run/data_update/update_any.lock";
  {
    FileLock lock(path, 3);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    std::optional<int> fd = DescriptorOf(path);
    ASSERT_TRUE(fd.has_value());
    EXPECT_TRUE(fcntl(*fd, F_GETFD) & FD_CLOEXEC);
  }
  EXPECT_FALSE(DescriptorOf(path).has_value());
  EXPECT_TRUE(Exists(path)) << "the lock file is never deleted";
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                             "info: file_lock.cpp:44 Acquire lock on file: " + path,
                             "info: file_lock.cpp:53 Release lock on file: " + path,
                         }));
}

TEST(FileLock, PathWithoutDirectoryPartNeedsNoDirectory) {
  TempDir dir;
  char previous[4096];
  ASSERT_NE(getcwd(previous, sizeof previous), nullptr);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  {
    FileLock lock("bare.lock", 0);
    EXPECT_TRUE(Exists(dir / "bare.lock"));
  }
  EXPECT_NO_THROW(FileLock::MakeDir("bare.lock"));
  ASSERT_EQ(chdir(previous), 0);
}

TEST(FileLock, SecondLockOnTheSamePathInOneProcessConflictsAndLogsNothing) {
  TempDir dir;
  const std::string path = dir / "update_db1.lock";
  {
    FileLock first(path, 0);
    LogCapture log;
    EXPECT_UPDATE_ERROR(FileLock second(path, 0), "Fail to lock " + path);
    EXPECT_TRUE(log.Lines().empty());
    // The failed attempt closed its own descriptor and left the first one held.
    EXPECT_TRUE(DescriptorOf(path).has_value());
  }
  EXPECT_NO_THROW(FileLock again(path, 0));
}

TEST(FileLock, UncreatableDirectoryOrUnopenableFileFails) {
  TempDir dir;
  WriteFile(dir / "plain", "a file where a directory should be");
  const std::string path = dir / "plain/sub/x.lock";
  std::string filesystem_text;
  try {
    boost::filesystem::create_directories(dir / "plain/sub");
  } catch (const boost::filesystem::filesystem_error& e) {
    filesystem_text = e.what();
  }
  ASSERT_FALSE(filesystem_text.empty());
  EXPECT_UPDATE_ERROR(FileLock(path, 0), "Fail to create dir " + filesystem_text);
  EXPECT_UPDATE_ERROR(FileLock::MakeDir(path), "Fail to create dir " + filesystem_text);

  ASSERT_EQ(mkdir((dir / "a_directory.lock").c_str(), 0755), 0);
  EXPECT_UPDATE_ERROR(FileLock(dir / "a_directory.lock", 0),
                      "Fail open lock file " + (dir / "a_directory.lock"));
}

TEST(FileLock, FailedUnlockIsLoggedAndTheReleaseLineStillFollows) {
  TempDir dir;
  const std::string path = dir / "x.lock";
  auto lock = std::make_unique<FileLock>(path, 0);
  std::optional<int> fd = DescriptorOf(path);
  ASSERT_TRUE(fd.has_value());
  ASSERT_EQ(close(*fd), 0);  // pulled from under the guard: its unlock must fail
  LogCapture log;
  lock.reset();
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                             "err: file_lock.cpp:50 Fail to unlock " + path,
                             "info: file_lock.cpp:53 Release lock on file: " + path,
                         }));
}

TEST_F(ProjectLockTest, UnsupportedDatabaseIsMinusTwoAndLogged) {
  CreateLockFile("nope");
  CreateLockFile("db1");
  LogCapture log;
  EXPECT_EQ(VESKDBUDGetFileLock("nope", 0), -2);
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                             "err: project_lock.cpp:30 Failed to check supported: "
                             "Project nope not supported",
                             "err: project_lock.cpp:49 [nope] is not supported, skip getting lock",
                         }));
  // An unreadable configuration makes every database unsupported.
  log.Clear();
  boost::filesystem::remove(sandbox.Path("/usr/share/data_update/databases.conf"));
  EXPECT_EQ(VESKDBUDGetFileLock("db1", 0), -2);
  EXPECT_EQ(log.Matching("project_lock.cpp:30"),
            (std::vector<std::string>{
                "err: project_lock.cpp:30 Failed to check supported: File not exist: " +
                sandbox.Path("/usr/share/data_update/databases.conf")}));
}

TEST_F(ProjectLockTest, NeverUpdatedDatabaseHasNoLockFileAndIsMinusTwo) {
  LogCapture log;
  EXPECT_EQ(VESKDBUDGetFileLock("db1", 0), -2);
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"err: project_lock.cpp:55 Failed to open lock "
                                                   "file: " +
                                                   LockPath("db1")}));
  EXPECT_FALSE(Exists(LockPath("db1"))) << "a reader never creates the lock file";
}

TEST_F(ProjectLockTest, ReturnsASharedCloseOnExecDescriptor) {
  CreateLockFile("db1");
  LogCapture log;
  const int first = VESKDBUDGetFileLock("db1", 0);
  const int second = VESKDBUDGetFileLock("db1", 0);
  ASSERT_GE(first, 0);
  ASSERT_GE(second, 0) << "readers share the lock";
  EXPECT_NE(first, second);
  EXPECT_TRUE(fcntl(first, F_GETFD) & FD_CLOEXEC);
  EXPECT_UPDATE_ERROR(FileLock(LockPath("db1"), 0), "Fail to lock " + LockPath("db1"));

  VESKDBUDReleaseFileLock(first);
  EXPECT_EQ(fcntl(first, F_GETFD), -1) << "released descriptors are closed";
  EXPECT_UPDATE_ERROR(FileLock(LockPath("db1"), 0), "Fail to lock " + LockPath("db1"));
  VESKDBUDReleaseFileLock(second);
  EXPECT_NO_THROW(FileLock(LockPath("db1"), 0));
  EXPECT_TRUE(log.Matching("project_lock.cpp").empty());
}

TEST_F(ProjectLockTest, ReleasingANegativeResultDoesNothingAndAFailedReleaseIsLogged) {
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(close(fd), 0);  // a number that names no open file
  LogCapture log;
  VESKDBUDReleaseFileLock(-1);
  VESKDBUDReleaseFileLock(-2);
  VESKDBUDReleaseFileLock(fd);
  EXPECT_EQ(log.Lines(),
            (std::vector<std::string>{"err: project_lock.cpp:78 Failed to release file lock"}));
}
