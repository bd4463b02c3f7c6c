// Shared pieces of the veskdbud command-line tool: its exit statuses and the
// error that carries one.
#pragma once

#include <stdexcept>
#include <string>

namespace vesk::cli {

// The documented exit statuses (docs/operations.md). run-locked passes its
// command's status through and keeps 124..127 for its own outcomes.
enum ExitStatus : int {
  kExitOk = 0,
  kExitFailed = 1,  // also is-updating's "no update is running"
  kExitUsage = 2,
  kExitUnknownDatabase = 3,
  kExitNoVolume = 4,
  kExitCannotTell = 5,  // is-updating could not answer
  kExitLockTimeout = 124,
  kExitLockUnavailable = 125,
  kExitCannotRun = 126,
  kExitNotFound = 127,
};

// A failure the tool reports as one line on stderr with its own exit status.
class CliError : public std::runtime_error {
 public:
  CliError(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

}  // namespace vesk::cli
