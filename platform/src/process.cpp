#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "last_error.h"
#include "vlib/vlibc.h"

extern char** environ;

namespace vesk::platform {
namespace {

thread_local int last_error = 0;

// Spawns argv[0] with stdin from /dev/null, waits, and maps the outcome to
// 0 (exit status 0) or -1 with the reason kept as the last error.
int SpawnAndWait(const std::vector<const char*>& argv) {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) {
    SetLastError(errno);
    return -1;
  }
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);

  pid_t pid = -1;
  int rc =
      posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    SetLastError(rc);
    return -1;
  }

  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      SetLastError(errno);
      return -1;
    }
  }
  if (WIFEXITED(status)) {
    if (WEXITSTATUS(status) == 0) {
      SetLastError(0);
      return 0;
    }
    SetLastError(0x100 + WEXITSTATUS(status));
    return -1;
  }
  SetLastError(WIFSIGNALED(status) ? 0x200 + WTERMSIG(status) : EIO);
  return -1;
}

}  // namespace

void SetLastError(int code) {
  last_error = code;
}
int LastError() {
  return last_error;
}

}  // namespace vesk::platform

using vesk::platform::SpawnAndWait;

extern "C" int VLIBCExecl(const char* path, int flags, ...) {
  static_cast<void>(flags);  // the spawn behaves the same for every flags word
  if (path == nullptr) {
    vesk::platform::SetLastError(EINVAL);
    return -1;
  }
  std::vector<const char*> argv{path};
  va_list ap;
  va_start(ap, flags);
  while (const char* arg = va_arg(ap, const char*))
    argv.push_back(arg);
  va_end(ap);
  argv.push_back(nullptr);
  return SpawnAndWait(argv);
}

extern "C" int VLIBCExec(const char* program, const char* arg1, const char* arg2, const char* arg3,
                         const char* arg4) {
  if (program == nullptr) {
    vesk::platform::SetLastError(EINVAL);
    return -1;
  }
  std::vector<const char*> argv{program};
  for (const char* arg : {arg1, arg2, arg3, arg4}) {
    if (arg == nullptr)
      break;
    argv.push_back(arg);
  }
  argv.push_back(nullptr);
  return SpawnAndWait(argv);
}

extern "C" int VLIBCErrGet(void) {
  return vesk::platform::LastError();
}

extern "C" int VLIBCFileExist(const char* path) {
  struct stat st;
  return path != nullptr && stat(path, &st) == 0 ? 1 : 0;
}
