#include "dataupdate/project_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "lock_poll.h"
#include "log_sites.h"
#include "unique_fd.h"
#include "vesk/root.h"

namespace du = vesk::dataupdate;
namespace log = vesk::dataupdate::log;

namespace {

constexpr int kTimedOut = -1;
constexpr int kUnavailable = -2;

int GetFileLock(const char* id, unsigned int timeout) {
  // Read first: loading the configuration counts against the limit.
  const du::LockClock::time_point start = du::LockClock::now();
  const du::LockClock::time_point deadline = du::LockDeadline(start, timeout);
  const std::string path =
      vesk::platform::RootPath((du::NoexceptFormat("/run/data_update/using_%s.lock") % id).str());

  try {
    du::ServiceConfig service(std::make_shared<du::Config>(std::make_shared<du::IOUtils>()));
    service.CheckSupported(id);
  } catch (const du::UpdateError& e) {
    log::Write(log::site::kReaderCheckSupportedFailed, e.what());
    log::Write(log::site::kReaderNotSupported, id);
    return kUnavailable;
  }

  // Without O_CREAT: a reader never creates the lock file.
  du::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    log::Write(log::site::kReaderOpenFailed, path);
    return kUnavailable;
  }
  if (!du::PollFlock(fd.get(), LOCK_SH, start, deadline)) {
    log::Write(log::site::kReaderTimeout);
    return kTimedOut;  // `fd` closes on the way out
  }
  return fd.release();
}

}  // namespace

// Plain C callers: nothing may be thrown past here.
extern "C" int VESKDBUDGetFileLock(const char* id, unsigned int timeout) {
  if (id == nullptr)
    return kUnavailable;
  try {
    return GetFileLock(id, timeout);
  } catch (...) {
    return kUnavailable;
  }
}

extern "C" void VESKDBUDReleaseFileLock(int fd) {
  if (fd < 0)
    return;
  if (flock(fd, LOCK_UN) == -1)
    log::Write(log::site::kReaderReleaseFailed);
  close(fd);
}
