// veskdbud-bench: the project's side of the benchmarks that have no command of
// their own. bench/run.py starts it as a process and times it from outside,
// exactly like the baseline program it is compared with; it prints no timings
// of its own except for the lock hand-off, which only it can observe.
//
//   veskdbud-bench digest ROOT MANIFEST
//       CheckStatus over the files listed in MANIFEST (sha384sum's output
//       format: "<digest>  <name>"), names relative to ROOT. Exit 0 when every
//       file matches, 1 when one does not.
//   veskdbud-bench calculate ROOT MANIFEST
//       CalculateStatus over the same files; exit 0 when it gives exactly the
//       digests of MANIFEST, 1 otherwise.
//   veskdbud-bench sql-apply DATABASE DIFF
//       Applies the ".sqlitediff" DIFF to DATABASE the way a diff update does
//       (DiffStrategy::_DoSqlitePatch).
//   veskdbud-bench stat ROOT LIST
//       One fstatat, relative to the open ROOT, of every name listed in LIST
//       (one per line): the least any check of existence and size must do.
//       Exit 0 when every name is a regular file, 1 otherwise.
//   veskdbud-bench lock-handoff PATH COUNT filelock|flock SEED
//       COUNT hand-offs of an exclusive lock on PATH from this process to a
//       child waiting in FileLock (or, for the baseline, in a blocking flock);
//       prints one line per hand-off: the microseconds from the release to the
//       waiter holding the lock.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "dataupdate/file_lock.h"
#include "dataupdate/records.h"
#include "dataupdate/strategy.h"
#include "dataupdate/updater.h"

namespace du = vesk::dataupdate;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kExitUsage = 2;

std::int64_t NowMicros() {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
      .count();
}

// A descriptor closed when it goes out of scope.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0)
      close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  void reset(int fd = -1) {
    if (fd_ >= 0)
      close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

bool WriteValue(int fd, std::int64_t value) {
  return write(fd, &value, sizeof value) == static_cast<ssize_t>(sizeof value);
}

bool ReadValue(int fd, std::int64_t* value) {
  return read(fd, value, sizeof *value) == static_cast<ssize_t>(sizeof *value);
}

int Digest(const std::string& root, const std::string& manifest, bool calculate) {
  std::ifstream in(manifest);
  if (!in) {
    std::cerr << "veskdbud-bench: cannot read " << manifest << "\n";
    return kExitUsage;
  }
  std::map<std::string, du::FileStatus> statuses;
  std::string line;
  while (std::getline(in, line)) {
    if (line.size() < 99 || line.compare(96, 2, "  ") != 0)
      continue;
    std::string name = line.substr(98);
    if (name.rfind("./", 0) == 0)
      name.erase(0, 2);
    statuses.emplace(name, du::FileStatus{line.substr(0, 96)});
  }
  if (statuses.empty()) {
    std::cerr << "veskdbud-bench: no digests in " << manifest << "\n";
    return kExitUsage;
  }
  if (!calculate)
    return du::CheckStatus(statuses, root) ? 0 : 1;
  std::set<std::string> names;
  for (const auto& entry : statuses)
    names.insert(entry.first);
  return du::CalculateStatus(names, root) == statuses ? 0 : 1;
}

int SqlApply(const std::string& database, const std::string& diff) {
  du::DatabaseStatus status;
  du::RemoteInfo remote;
  // No volume is touched: the patch step works on the two paths it is given.
  du::DiffStrategy strategy("bench", status, remote, {}, "/nonexistent-bench-volume", "", "");
  strategy._DoSqlitePatch(database, diff);
  return 0;
}

// The waiter: told to start waiting, waits for the lock, reports when it got
// it, releases it and waits for the next round.
int Waiter(const std::string& path, bool use_filelock, int go_fd, int report_fd) {
  std::int64_t round = 0;
  while (ReadValue(go_fd, &round)) {
    std::int64_t got = 0;
    if (use_filelock) {
      du::FileLock lock(path, 60);
      got = NowMicros();
    } else {
      Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
      if (fd.get() < 0 || flock(fd.get(), LOCK_EX) != 0)
        return 1;
      got = NowMicros();
    }
    if (!WriteValue(report_fd, got))
      return 1;
  }
  return 0;
}

int LockHandoff(const std::string& path, int count, bool use_filelock, unsigned seed) {
  Fd lock_fd(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
  int go[2], report[2];
  if (lock_fd.get() < 0 || pipe2(go, O_CLOEXEC) != 0)
    return 1;
  Fd go_read(go[0]), go_write(go[1]);
  if (pipe2(report, O_CLOEXEC) != 0)
    return 1;
  Fd report_read(report[0]), report_write(report[1]);

  const pid_t child = fork();
  if (child < 0)
    return 1;
  if (child == 0) {
    go_write.reset();
    report_read.reset();
    int rc = 1;
    try {
      rc = Waiter(path, use_filelock, go_read.get(), report_write.get());
    } catch (const std::exception& e) {
      std::cerr << "veskdbud-bench: waiter: " << e.what() << "\n";
    }
    _exit(rc);
  }
  go_read.reset();
  report_write.reset();

  // The holder keeps the lock for a random time spread over more than one
  // polling period (100 ms), so the release falls at any point of it.
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> hold_ms(20, 130);
  int failures = 0;
  for (int i = 0; i < count; ++i) {
    if (flock(lock_fd.get(), LOCK_EX) != 0 || !WriteValue(go_write.get(), i)) {
      ++failures;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(hold_ms(random)));
    const std::int64_t released = NowMicros();
    flock(lock_fd.get(), LOCK_UN);
    std::int64_t got = 0;
    if (!ReadValue(report_read.get(), &got)) {
      ++failures;
      break;
    }
    std::printf("%lld\n", static_cast<long long>(got - released));
  }
  go_write.reset();  // the waiter sees the end of its input and leaves
  int status = 0;
  waitpid(child, &status, 0);
  std::fflush(stdout);
  return failures == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}

int StatEach(const std::string& root, const std::string& list) {
  const int dir = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0)
    throw std::runtime_error("cannot open " + root);
  std::ifstream names(list);
  std::string name;
  int missing = 0;
  struct stat st;
  while (std::getline(names, name))
    missing += fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode);
  close(dir);
  return missing == 0 ? 0 : 1;
}

int Usage() {
  std::cerr << "usage: veskdbud-bench digest|calculate ROOT MANIFEST\n"
               "       veskdbud-bench sql-apply DATABASE DIFF\n"
               "       veskdbud-bench stat ROOT LIST\n"
               "       veskdbud-bench lock-handoff PATH COUNT filelock|flock SEED\n";
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  try {
    if (args.size() == 3 && (args[0] == "digest" || args[0] == "calculate"))
      return Digest(args[1], args[2], args[0] == "calculate");
    if (args.size() == 3 && args[0] == "stat")
      return StatEach(args[1], args[2]);
    if (args.size() == 3 && args[0] == "sql-apply")
      return SqlApply(args[1], args[2]);
    if (args.size() == 5 && args[0] == "lock-handoff" &&
        (args[3] == "filelock" || args[3] == "flock"))
      return LockHandoff(args[1], std::atoi(args[2].c_str()), args[3] == "filelock",
                         static_cast<unsigned>(std::strtoul(args[4].c_str(), nullptr, 10)));
  } catch (const std::exception& e) {
    std::cerr << "veskdbud-bench: " << e.what() << "\n";
    return 1;
  }
  return Usage();
}
