// FileLock: a scoped, exclusive, advisory flock() on a lock file.
//
// The constructor creates the lock file's directories and the file (mode 0644)
// when missing, then polls flock(LOCK_EX | LOCK_NB) every 100 ms against a
// steady-clock deadline, so the time limit holds (a blocking flock is never
// used). Timeout 0 makes exactly one attempt. It returns only with the lock held
// and throws UpdateError otherwise. The destructor unlocks and closes; it never
// throws. The lock file is never deleted.
//
// flock locks belong to the open file description: a second FileLock on the same
// path in the same process conflicts with the first like any other process.
#pragma once

#include <string>

#include "dataupdate/export.h"

namespace vesk::dataupdate {

class VESKDBUD_EXPORT FileLock {
 public:
  FileLock(const std::string& path, unsigned int timeout);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Creates every missing directory of the parent of `path`.
  static void MakeDir(const std::string& path);

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace vesk::dataupdate
