// Lock files between real processes: the time limits of FileLock and of the
// exported reader lock, readers sharing, writers and readers waiting for each
// other.
#include <chrono>
#include <memory>
#include <thread>

#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/project_lock.h"
#include "forked_child.h"
#include "test_support.h"

using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

// Shorter than one polling interval: only a single attempt fits.
constexpr double kOneAttempt = 0.09;
constexpr char kLocked = 'L';

}  // namespace

// A child holds the lock of db1 as a writer (FileLock) or a reader (the exported
// lock) for `hold_ms`, or until told, while this process asks for it with `timeout`.
TEST(LockProcessTest, WritersAndReadersWaitForEachOtherWithinTheirTimeLimits) {
  const Sandbox sandbox;
  sandbox.Write("/usr/share/data_update/databases.conf", R"({"db1": {}})");
  const std::string using_path = sandbox.Path("/run/data_update/using_db1.lock");
  { FileLock create(using_path, 0); }  // the lock file exists once a writer has run
  struct Case {
    bool holder_writes;
    int hold_ms;  // 0: until the waiter is done
    bool waiter_writes;
    int timeout;
    bool granted;
    double min_s, max_s;
  };
  const Case cases[] = {
      {true, 0, true, 0, false, 0, kOneAttempt},  // timeout 0: one attempt
      {true, 0, true, 1, false, 0.9, 3.0},        // timeout 1: about a second
      {true, 400, true, 5, true, 0.3, 2.0},       // polling notices the release soon
      {false, 0, true, 0, false, 0, kOneAttempt},
      {false, 400, true, 5, true, 0.25, 2.0},  // the writer waits for the reader
      {true, 0, false, 0, false, 0, kOneAttempt},
      {true, 0, false, 1, false, 0.9, 3.0},
      {true, 400, false, 5, true, 0.3, 2.0},       // the reader waits for the writer
      {false, 0, false, 0, true, 0, kOneAttempt},  // two readers hold it together
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.holder_writes ? "writer" : "reader") + " holds " +
                 std::to_string(c.hold_ms) + " ms, " + (c.waiter_writes ? "writer" : "reader") +
                 " waits " + std::to_string(c.timeout) + " s");
    ForkedChild holder([&](const ForkedChild::Channel& parent) {
      std::unique_ptr<FileLock> writer;
      int reader = -1;
      if (c.holder_writes)
        writer = std::make_unique<FileLock>(using_path, 0);
      else if ((reader = VESKDBUDGetFileLock("db1", 0)) < 0)
        return 1;
      parent.Send(kLocked);
      if (c.hold_ms > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(c.hold_ms));
      else
        parent.Receive();
      VESKDBUDReleaseFileLock(reader);
      return 0;
    });
    ASSERT_EQ(holder.Receive(), kLocked);
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    bool granted = true;
    if (c.waiter_writes) {
      try {
        FileLock lock(using_path, c.timeout);
      } catch (const UpdateError& e) {
        EXPECT_EQ(std::string(e.what()), "Fail to lock " + using_path);
        granted = false;
      }
    } else {
      const int fd = VESKDBUDGetFileLock("db1", c.timeout);
      granted = fd >= 0;
      if (!granted) {
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(log.Matching("project_lock"),
                  (std::vector<std::string>{"err: project_lock.cpp:66 Get file lock timeout."}));
      }
      VESKDBUDReleaseFileLock(fd);
    }
    const double elapsed = SecondsSince(start);
    EXPECT_EQ(granted, c.granted);
    EXPECT_GE(elapsed, c.min_s);
    EXPECT_LE(elapsed, c.max_s);
    if (c.hold_ms == 0)
      holder.Send('R');
    EXPECT_EQ(holder.Wait(), 0);
  }
}
