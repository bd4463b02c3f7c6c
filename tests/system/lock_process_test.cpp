// Lock files between real processes: the time limits of FileLock and of the
// exported reader lock, readers sharing, writers and readers waiting for each
// other, and the documented lock order running without deadlock.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/project_lock.h"
#include "forked_child.h"
#include "test_support.h"

using vesk::dataupdate::FileLock;
using vesk::dataupdate::UpdateError;
using vesk::test::ForkedChild;
using vesk::test::LogCapture;
using vesk::test::Sandbox;
using vesk::test::SecondsSince;
using Clock = std::chrono::steady_clock;

namespace {

// Shorter than one polling interval: only a single attempt fits.
constexpr double kOneAttempt = 0.09;
constexpr char kLocked = 'L';
constexpr char kRelease = 'R';

// A child that holds FileLock(path) until told to release it.
int HoldExclusive(const ForkedChild::Channel& parent, const std::string& path) {
  FileLock lock(path, 0);
  parent.Send(kLocked);
  parent.Receive();
  return 0;
}

// A child that holds the reader lock of `id` until told to release it.
int HoldShared(const ForkedChild::Channel& parent, const char* id) {
  const int fd = VESKDBUDGetFileLock(id, 0);
  if (fd < 0)
    return 1;
  parent.Send(kLocked);
  parent.Receive();
  VESKDBUDReleaseFileLock(fd);
  return 0;
}

// A child that holds FileLock(path) for `hold`, then releases it and exits.
int HoldExclusiveFor(const ForkedChild::Channel& parent, const std::string& path,
                     std::chrono::milliseconds hold) {
  FileLock lock(path, 0);
  parent.Send(kLocked);
  std::this_thread::sleep_for(hold);
  return 0;
}

class LockProcessTest : public ::testing::Test {
 protected:
  LockProcessTest() {
    sandbox.Write("/usr/share/data_update/databases.conf", R"({"db1": {}})");
    FileLock create(using_path, 0);  // the lock file exists once a writer has run
  }

  Sandbox sandbox;
  const std::string using_path = sandbox.Path("/run/data_update/using_db1.lock");
};

}  // namespace

TEST_F(LockProcessTest, FileLockWithTimeoutZeroFailsAfterOneAttempt) {
  ForkedChild holder([&](const auto& parent) { return HoldExclusive(parent, using_path); });
  ASSERT_EQ(holder.Receive(), kLocked);
  const auto start = Clock::now();
  EXPECT_UPDATE_ERROR(FileLock(using_path, 0), "Fail to lock " + using_path);
  EXPECT_LT(SecondsSince(start), kOneAttempt);
  holder.Send(kRelease);
  EXPECT_EQ(holder.Wait(), 0);
}

TEST_F(LockProcessTest, FileLockWithTimeoutOneGivesUpAfterAboutASecond) {
  ForkedChild holder([&](const auto& parent) { return HoldExclusive(parent, using_path); });
  ASSERT_EQ(holder.Receive(), kLocked);
  const auto start = Clock::now();
  EXPECT_UPDATE_ERROR(FileLock(using_path, 1), "Fail to lock " + using_path);
  const double elapsed = SecondsSince(start);
  EXPECT_GE(elapsed, 0.9);
  EXPECT_LE(elapsed, 3.0);
  holder.Send(kRelease);
  EXPECT_EQ(holder.Wait(), 0);
}

TEST_F(LockProcessTest, FileLockTakesTheLockOnceTheHolderLetsGo) {
  ForkedChild holder([&](const auto& parent) {
    return HoldExclusiveFor(parent, using_path, std::chrono::milliseconds(400));
  });
  ASSERT_EQ(holder.Receive(), kLocked);
  const auto start = Clock::now();
  EXPECT_NO_THROW(FileLock(using_path, 5));
  const double elapsed = SecondsSince(start);
  EXPECT_GE(elapsed, 0.3);
  EXPECT_LE(elapsed, 2.0) << "polling every 100 ms notices the release soon";
  EXPECT_EQ(holder.Wait(), 0);
}

TEST_F(LockProcessTest, TwoReadersHoldTheLockTogether) {
  ForkedChild first([](const auto& parent) { return HoldShared(parent, "db1"); });
  ForkedChild second([](const auto& parent) { return HoldShared(parent, "db1"); });
  EXPECT_EQ(first.Receive(), kLocked);
  EXPECT_EQ(second.Receive(), kLocked);
  const int fd = VESKDBUDGetFileLock("db1", 0);  // and a third, here
  EXPECT_GE(fd, 0);
  VESKDBUDReleaseFileLock(fd);
  first.Send(kRelease);
  second.Send(kRelease);
  EXPECT_EQ(first.Wait(), 0);
  EXPECT_EQ(second.Wait(), 0);
}

TEST_F(LockProcessTest, WriterWaitsForTheReaders) {
  ForkedChild reader([](const auto& parent) {
    const int fd = VESKDBUDGetFileLock("db1", 0);
    if (fd < 0)
      return 1;
    parent.Send(kLocked);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    VESKDBUDReleaseFileLock(fd);
    return 0;
  });
  ASSERT_EQ(reader.Receive(), kLocked);
  EXPECT_UPDATE_ERROR(FileLock(using_path, 0), "Fail to lock " + using_path);
  const auto start = Clock::now();
  EXPECT_NO_THROW(FileLock(using_path, 5));
  EXPECT_GE(SecondsSince(start), 0.25);
  EXPECT_EQ(reader.Wait(), 0);
}

TEST_F(LockProcessTest, ReaderWithTimeoutZeroFailsAtOnceWhileAWriterHoldsTheLock) {
  ForkedChild writer([&](const auto& parent) { return HoldExclusive(parent, using_path); });
  ASSERT_EQ(writer.Receive(), kLocked);
  LogCapture log;
  const auto start = Clock::now();
  EXPECT_EQ(VESKDBUDGetFileLock("db1", 0), -1);
  EXPECT_LT(SecondsSince(start), kOneAttempt);
  EXPECT_EQ(log.Lines(),
            (std::vector<std::string>{"err: project_lock.cpp:66 Get file lock timeout."}));
  writer.Send(kRelease);
  EXPECT_EQ(writer.Wait(), 0);
}

TEST_F(LockProcessTest, ReaderWithTimeoutOneGivesUpAfterAboutASecond) {
  ForkedChild writer([&](const auto& parent) { return HoldExclusive(parent, using_path); });
  ASSERT_EQ(writer.Receive(), kLocked);
  const auto start = Clock::now();
  EXPECT_EQ(VESKDBUDGetFileLock("db1", 1), -1);
  const double elapsed = SecondsSince(start);
  EXPECT_GE(elapsed, 0.9);
  EXPECT_LE(elapsed, 3.0);
  writer.Send(kRelease);
  EXPECT_EQ(writer.Wait(), 0);
}

TEST_F(LockProcessTest, ReaderWaitsForTheWriter) {
  ForkedChild writer([&](const auto& parent) {
    return HoldExclusiveFor(parent, using_path, std::chrono::milliseconds(400));
  });
  ASSERT_EQ(writer.Receive(), kLocked);
  const auto start = Clock::now();
  const int fd = VESKDBUDGetFileLock("db1", 5);
  EXPECT_GE(fd, 0);
  EXPECT_GE(SecondsSince(start), 0.3);
  VESKDBUDReleaseFileLock(fd);
  EXPECT_EQ(writer.Wait(), 0);
}

TEST_F(LockProcessTest, ProcessesTakingLocksInTheDocumentedOrderDoNotDeadlock) {
  // update_any, then update_<id>, then fresh_info; released in reverse. Each
  // process also checks that nobody else is inside while it holds all three.
  const std::string any = sandbox.Path("/run/data_update/update_any.lock");
  const std::string one = sandbox.Path("/run/data_update/update_db1.lock");
  const std::string fresh = sandbox.Path("/run/data_update/fresh_info.lock");
  const std::string inside = sandbox.Path("/run/data_update/inside");
  auto run = [&](const ForkedChild::Channel&) {
    for (int round = 0; round < 20; ++round) {
      FileLock first(any, 10);
      FileLock second(one, 10);
      FileLock third(fresh, 10);
      const int marker = open(inside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
      if (marker < 0)
        return 2;  // someone else holds the same locks
      close(marker);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      unlink(inside.c_str());
    }
    return 0;
  };
  ForkedChild a(run);
  ForkedChild b(run);
  EXPECT_EQ(a.Wait(std::chrono::seconds(60)), 0);
  EXPECT_EQ(b.Wait(std::chrono::seconds(60)), 0);
}
