#include "log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vesk::dataupdate::log {

const char* LevelName(int priority) noexcept {
  static const char* const kNames[] = {"emerg",   "alert",  "crit", "err",
                                       "warning", "notice", "info", "debug"};
  return kNames[LOG_PRI(priority)];
}

namespace {

void Mirror(int priority, const char* message) noexcept {
  const char* path = std::getenv("VESKDBUD_LOG_FILE");
  if (path == nullptr || *path == '\0')
    return;
  int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0)
    return;
  char line[4200];
  int n = std::snprintf(line, sizeof line, "%s: %s\n", LevelName(priority), message);
  if (n > 0) {
    size_t len = static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1;
    if (len == sizeof line - 1)
      line[len - 1] = '\n';
    ssize_t written = write(fd, line, len);
    static_cast<void>(written);  // a lost mirror line must not fail the caller
  }
  close(fd);
}

// Where no syslog daemon listens, syslog() makes three system calls per line
// to find that out again, and drops the line. The socket is looked for once a
// second instead; a daemon that starts gets lines from the next second on.
bool SyslogListening() noexcept {
  static std::atomic<long> checked_at{-1};
  static std::atomic<bool> listening{false};
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  if (checked_at.load(std::memory_order_relaxed) != now.tv_sec) {
    struct stat st;
    listening.store(stat("/dev/log", &st) == 0 && S_ISSOCK(st.st_mode), std::memory_order_relaxed);
    checked_at.store(now.tv_sec, std::memory_order_relaxed);
  }
  return listening.load(std::memory_order_relaxed);
}

}  // namespace

namespace detail {

void Emit(const Site* site, ...) noexcept {
  char message[4096];
  int used = 0;
  if (site->file != nullptr) {
    used = std::snprintf(message, sizeof message, "%s:%d ", site->file, site->line);
    if (used < 0)
      used = 0;
  }
  va_list ap;
  va_start(ap, site);
  // The text is one of the fixed texts of log_sites.h, reached through the site,
  // so it cannot be a literal here (clang's -Wformat-nonliteral says so).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::vsnprintf(message + used, sizeof message - static_cast<size_t>(used), site->text, ap);
#pragma GCC diagnostic pop
  va_end(ap);

  if (SyslogListening())
    syslog(site->priority, "%s", message);
  Mirror(site->priority, message);
}

}  // namespace detail
}  // namespace vesk::dataupdate::log
