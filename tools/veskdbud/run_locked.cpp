// run-locked: holds a database's read lock (the library's exported reader
// lock) while a command runs, so an update cannot replace the files under it.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "dataupdate/project_lock.h"
#include "library.h"
#include "system_paths.h"

extern char** environ;

namespace vesk::cli {
namespace {

constexpr unsigned int kDefaultTimeout = 60;
constexpr int kForwarded[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

volatile sig_atomic_t child_pid = 0;

// Passes a termination signal on to the command; the tool then reports how
// the command ended.
void Forward(int signal_number) {
  if (child_pid > 0)
    kill(child_pid, signal_number);
}

class ReaderLock {
 public:
  ReaderLock(const std::string& id, unsigned int timeout)
      : fd_(VESKDBUDGetFileLock(id.c_str(), timeout)) {}
  ~ReaderLock() { VESKDBUDReleaseFileLock(fd_); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;
  int result() const { return fd_; }

 private:
  int fd_;
};

unsigned int ParseTimeout(const Args& args) {
  const auto it = args.values.find("--timeout");
  if (it == args.values.end())
    return kDefaultTimeout;
  char* end = nullptr;
  errno = 0;
  const unsigned long value = std::strtoul(it->second.c_str(), &end, 10);
  if (it->second.empty() || it->second[0] == '-' || *end != '\0' || errno != 0 ||
      value > UINT_MAX) {
    throw CliError(kExitUsage, "run-locked: --timeout takes whole seconds, got '" + it->second +
                                   "' (see 'veskdbud run-locked --help')");
  }
  return static_cast<unsigned int>(value);
}

// Starts the command, waits for it and returns its exit status (128 + N when
// signal N ended it).
int RunCommand(const std::vector<std::string>& command) {
  std::vector<char*> argv;
  for (const std::string& word : command)
    argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);

  struct sigaction action {};
  action.sa_handler = Forward;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (int signal_number : kForwarded)
    sigaction(signal_number, &action, nullptr);

  pid_t pid = 0;
  const int rc = posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
  if (rc != 0) {
    throw CliError(rc == ENOENT ? kExitNotFound : kExitCannotRun,
                   "run-locked: cannot run '" + command[0] + "': " + std::strerror(rc));
  }
  child_pid = pid;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR)
      throw CliError(kExitCannotRun, std::string("run-locked: waitpid: ") + std::strerror(errno));
  }
  child_pid = 0;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int RunLocked(const Args& args) {
  const std::string id = args.Operand(0);
  const unsigned int timeout = ParseTimeout(args);
  Library().RequireKnown(id);
  const ReaderLock lock(id, timeout);
  if (lock.result() == -1) {
    throw CliError(kExitLockTimeout, "run-locked: the read lock of '" + id +
                                         "' was not free within " + std::to_string(timeout) +
                                         " s: an update is replacing its files");
  }
  if (lock.result() < 0) {
    throw CliError(kExitLockUnavailable, "run-locked: cannot open " +
                                             SystemPath("/run/data_update/using_" + id + ".lock") +
                                             " (it appears with the database's first update)");
  }
  std::cout.flush();
  return RunCommand(args.command_line);
}

}  // namespace vesk::cli
