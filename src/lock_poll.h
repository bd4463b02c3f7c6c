// The polling wait shared by FileLock and the exported reader lock. flock() is
// never called blocking, so a time limit holds whatever the other holder does.
#pragma once

#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

namespace vesk::dataupdate {

using LockClock = std::chrono::steady_clock;

inline constexpr useconds_t kLockPollInterval = 100000;  // microseconds

// The moment `timeout` seconds after `start`.
inline LockClock::time_point LockDeadline(LockClock::time_point start, unsigned int timeout) {
  return start + std::chrono::nanoseconds(static_cast<std::uint64_t>(timeout) * 1000000000ULL);
}

// Tries flock(fd, operation | LOCK_NB) until it succeeds (true) or the deadline
// has passed (false). The time compared is the one read before the attempt (the
// caller's `now` on the first), so a deadline equal to `now` makes exactly one
// attempt. Every failure of flock, not only "would block", is retried.
inline bool PollFlock(int fd, int operation, LockClock::time_point now,
                      LockClock::time_point deadline) {
  while (true) {
    if (flock(fd, operation | LOCK_NB) == 0)
      return true;
    if (now >= deadline)
      return false;
    usleep(kLockPollInterval);
    now = LockClock::now();
  }
}

}  // namespace vesk::dataupdate
