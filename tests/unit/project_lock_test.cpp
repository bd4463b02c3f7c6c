// The exported reader lock within one process: the -2 cases with their log
// lines, the shared descriptor it returns, and release.
#include "dataupdate/project_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include "dataupdate/file_lock.h"
#include "forked_child.h"
#include "test_support.h"

using vesk::dataupdate::FileLock;
using namespace vesk::test;

namespace {

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
