#include "vlib/plugin_sdk.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "file_util.h"
#include "last_error.h"
#include "vesk/root.h"
#include "vesk_internal/spawn.h"

extern char** environ;

namespace vesk::platform {
namespace {

constexpr const char kPluginRoot[] = "/usr/vesk/lib/plugins/";
constexpr const char kTimeoutVariable[] = "VLIB_PLUGIN_TIMEOUT";
constexpr long kDefaultTimeoutSeconds = 300;

// One initialised plug-in set: what Init found and what SetArg recorded.
struct Session {
  std::string module;
  std::vector<std::string> plugins;         // absolute paths, in name order
  std::map<std::string, std::string> args;  // ordered, so the environment is deterministic
};

// Handles are ids into this table rather than pointers, so a released or
// unknown handle is refused instead of touching freed memory. Ids are never
// reused within a process.
struct Table {
  std::mutex mutex;
  std::map<VLIBPluginHandle, Session> sessions;  // guarded by mutex
  VLIBPluginHandle next = 1;                     // guarded by mutex; 0 means "none"
};

Table& Sessions() {
  static Table table;
  return table;
}

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

class SpawnAttr {
 public:
  SpawnAttr() : ok_(posix_spawnattr_init(&attr_) == 0) {}
  ~SpawnAttr() {
    if (ok_)
      posix_spawnattr_destroy(&attr_);
  }
  SpawnAttr(const SpawnAttr&) = delete;
  SpawnAttr& operator=(const SpawnAttr&) = delete;
  bool ok() const { return ok_; }
  posix_spawnattr_t* get() { return &attr_; }

 private:
  posix_spawnattr_t attr_;
  bool ok_;
};

// A relative path of plain components: no "..", ".", empty or absolute form
// can lead the plug-in directory outside the plug-in root.
bool IsSafeRelativePath(std::string path) {
  if (!path.empty() && path.back() == '/')
    path.pop_back();
  if (path.empty() || path.front() == '/')
    return false;
  for (size_t start = 0;;) {
    const size_t end = path.find('/', start);
    const std::string part = path.substr(start, end == std::string::npos ? end : end - start);
    if (part.empty() || part == "." || part == "..")
      return false;
    if (end == std::string::npos)
      return true;
    start = end + 1;
  }
}

// The executable regular files of `dir` in byte order of their names. A
// missing directory is an empty set; any other failure to read it is an error
// (for example a file standing where the directory should be).
int ListPlugins(const std::string& dir, std::vector<std::string>* plugins) {
  UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0)
    return errno == ENOENT ? 0 : errno;
  DirPtr listing(fdopendir(fd.get()));
  if (!listing)
    return errno;
  fd.release();  // now owned by the DIR stream

  const int dir_fd = dirfd(listing.get());
  std::vector<std::string> names;
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(listing.get());
    if (entry == nullptr) {
      if (errno != 0)
        return errno;
      break;
    }
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
      continue;
    struct stat st;
    // Links are followed: a link to an executable is a plug-in, a dangling one is not.
    if (fstatat(dir_fd, name, &st, 0) != 0 || !S_ISREG(st.st_mode))
      continue;
    if (faccessat(dir_fd, name, X_OK, AT_EACCESS) != 0)
      continue;
    names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());  // char_traits<char> compares bytes as unsigned
  std::string prefix = dir;
  if (prefix.back() != '/')
    prefix.push_back('/');
  for (const auto& name : names)
    plugins->push_back(prefix + name);
  return 0;
}

// The inherited environment with every named argument added, replacing an
// inherited variable of the same name.
std::vector<std::string> BuildEnvironment(const std::map<std::string, std::string>& args) {
  std::vector<std::string> env;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const char* eq = std::strchr(*entry, '=');
    const std::string key =
        eq ? std::string(*entry, static_cast<size_t>(eq - *entry)) : std::string(*entry);
    if (args.count(key) == 0)
      env.emplace_back(*entry);
  }
  for (const auto& [key, value] : args) {
    std::string entry = key;
    entry += '=';
    entry += value;
    env.push_back(std::move(entry));
  }
  return env;
}

// Seconds a plug-in may run before it and its process group are killed;
// 0 means no limit.
long TimeoutSeconds() {
  const char* text = std::getenv(kTimeoutVariable);
  if (text == nullptr || *text == '\0')
    return kDefaultTimeoutSeconds;
  char* end = nullptr;
  errno = 0;
  long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < 0)
    return kDefaultTimeoutSeconds;
  return value;
}

double MonotonicSeconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void SleepMilliseconds(long ms) {
  timespec delay{ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&delay, &delay) != 0 && errno == EINTR) {
  }
}

// Waits for `pid`; after `timeout_s` seconds (0: never) kills its process
// group. Returns 0 for exit status 0, else the layer's error code.
int WaitForPlugin(pid_t pid, long timeout_s) {
  const double deadline = MonotonicSeconds() + static_cast<double>(timeout_s);
  long pause_ms = 1;
  int status = 0;
  for (;;) {
    pid_t done = waitpid(pid, &status, timeout_s > 0 ? WNOHANG : 0);
    if (done == pid)
      break;
    if (done < 0 && errno != EINTR)
      return errno;
    if (done == 0) {
      if (MonotonicSeconds() >= deadline) {
        // The plug-in leads its own group, so helpers it started die with it.
        killpg(pid, SIGKILL);
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return ETIMEDOUT;
      }
      // Short plug-ins are noticed quickly; long ones cost little polling.
      SleepMilliseconds(pause_ms);
      pause_ms = std::min(pause_ms * 2, 50L);
    }
  }
  if (WIFEXITED(status))
    return WEXITSTATUS(status) == 0 ? 0 : 0x100 + WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 0x200 + WTERMSIG(status) : EIO;
}

int RunPlugin(const std::string& program, int action, const std::vector<std::string>& env,
              long timeout_s) {
  SpawnFileActions actions;
  SpawnAttr attr;
  if (actions.error() != 0 || !attr.ok())
    return ENOMEM;
  int rc = posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (rc != 0)
    return rc;
  // Own process group (so a time-out kills the plug-in's helpers too) and an
  // empty signal mask, whatever the caller blocks.
  sigset_t empty;
  sigemptyset(&empty);
  rc = posix_spawnattr_setflags(attr.get(), POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
  if (rc == 0)
    rc = posix_spawnattr_setpgroup(attr.get(), 0);
  if (rc == 0)
    rc = posix_spawnattr_setsigmask(attr.get(), &empty);
  if (rc != 0)
    return rc;

  const std::string action_text = std::to_string(action);
  std::vector<char*> argv{const_cast<char*>(program.c_str()),
                          const_cast<char*>(action_text.c_str()), nullptr};
  std::vector<char*> envp;
  envp.reserve(env.size() + 1);
  for (const auto& entry : env)
    envp.push_back(const_cast<char*>(entry.c_str()));
  envp.push_back(nullptr);

  pid_t pid = -1;
  rc = posix_spawn(&pid, program.c_str(), actions.get(), attr.get(), argv.data(), envp.data());
  if (rc != 0)
    return rc;
  return WaitForPlugin(pid, timeout_s);
}

}  // namespace
}  // namespace vesk::platform

using vesk::platform::Caught;
using vesk::platform::Fail;
using vesk::platform::Sessions;
using vesk::platform::SetLastError;

extern "C" int VLIBPluginSDKInit(const char* module, const char* path,
                                 VLIBPluginHandle* handle) try {
  if (handle == nullptr || module == nullptr || *module == '\0' || path == nullptr ||
      !vesk::platform::IsSafeRelativePath(path))
    return Fail(EINVAL);
  vesk::platform::Session session;
  session.module = module;
  const std::string dir = vesk::platform::RootPath(std::string(vesk::platform::kPluginRoot) + path);
  if (int error = vesk::platform::ListPlugins(dir, &session.plugins); error != 0)
    return Fail(error);

  auto& table = Sessions();
  std::lock_guard<std::mutex> lock(table.mutex);
  const VLIBPluginHandle id = table.next++;
  table.sessions.emplace(id, std::move(session));
  *handle = id;
  SetLastError(0);
  return 0;
} catch (...) {
  return Caught(-1);
}

extern "C" int VLIBPluginSetArg(VLIBPluginHandle handle, const char* key, const char* value) try {
  // A name with "=" could not be passed as an environment variable.
  if (key == nullptr || *key == '\0' || std::strchr(key, '=') != nullptr || value == nullptr)
    return Fail(EINVAL);
  auto& table = Sessions();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto found = table.sessions.find(handle);
  if (found == table.sessions.end())
    return Fail(EBADF);
  found->second.args[key] = value;
  SetLastError(0);
  return 0;
} catch (...) {
  return Caught(-1);
}

extern "C" int VLIBPluginAction(_tag_sdk_plugin_action_ action, VLIBPluginHandle handle) try {
  vesk::platform::Session session;
  {
    // Plug-ins run outside the lock: a long action does not hold up other handles.
    auto& table = Sessions();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto found = table.sessions.find(handle);
    if (found == table.sessions.end())
      return Fail(EBADF);
    session = found->second;
  }
  const auto env = vesk::platform::BuildEnvironment(session.args);
  const long timeout_s = vesk::platform::TimeoutSeconds();
  int first_error = 0;
  for (const auto& plugin : session.plugins) {
    int error = vesk::platform::RunPlugin(plugin, static_cast<int>(action), env, timeout_s);
    if (error != 0 && first_error == 0)
      first_error = error;
  }
  if (first_error != 0)
    return Fail(first_error);
  SetLastError(0);
  return 0;
} catch (...) {
  return Caught(-1);
}

extern "C" int VLIBPluginExit(VLIBPluginHandle handle) try {
  auto& table = Sessions();
  std::lock_guard<std::mutex> lock(table.mutex);
  if (table.sessions.erase(handle) == 0)
    return Fail(EBADF);
  SetLastError(0);
  return 0;
} catch (...) {
  return Caught(-1);
}
