#include "dataupdate/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include "dataupdate/error.h"
#include "lock_poll.h"
#include "log_sites.h"
#include "unique_fd.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {

FileLock::FileLock(const std::string& path, unsigned int timeout) : path_(path) {
  // The clock is read before anything else so that creating the directory and
  // the file count against the limit too.
  const LockClock::time_point start = LockClock::now();
  const LockClock::time_point deadline = LockDeadline(start, timeout);

  MakeDir(path_);
  UniqueFd fd(open(path_.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
  if (!fd)
    throw UpdateError("Fail open lock file " + path_);

  if (!PollFlock(fd.get(), LOCK_EX, start, deadline))
    throw UpdateError("Fail to lock " + path_);  // `fd` closes on the way out
  fd_ = fd.release();
  log::Write(log::site::kLockAcquired, path_);
}

FileLock::~FileLock() {
  if (flock(fd_, LOCK_UN) == -1)
    log::Write(log::site::kUnlockFailed, path_);
  close(fd_);
  log::Write(log::site::kLockReleased, path_);
}

void FileLock::MakeDir(const std::string& path) {
  const fs::path parent = fs::path(path).parent_path();
  if (parent.empty())
    return;  // a bare file name lives in the working directory
  try {
    fs::create_directories(parent);
  } catch (const fs::filesystem_error& e) {
    throw UpdateError(std::string("Fail to create dir ") + e.what());
  }
}

}  // namespace vesk::dataupdate
