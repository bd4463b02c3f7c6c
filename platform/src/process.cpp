#include <errno.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "last_error.h"
#include "vesk_internal/spawn.h"
#include "vlib/vlibc.h"

namespace vesk::platform {
namespace {

thread_local int last_error = 0;

// Maps the outcome to 0 (exit status 0) or -1 with the reason kept as the
// last error.
int Run(const std::vector<std::string>& argv) {
  int status = 0;
  if (int error = SpawnAndWait(argv, {}, &status); error != 0)
    return Fail(error);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
    SetLastError(0);
    return 0;
  }
  if (WIFEXITED(status))
    return Fail(0x100 + WEXITSTATUS(status));
  return Fail(WIFSIGNALED(status) ? 0x200 + WTERMSIG(status) : EIO);
}

}  // namespace

void SetLastError(int code) {
  last_error = code;
}
int LastError() {
  return last_error;
}

}  // namespace vesk::platform

using vesk::platform::CatchAll;
using vesk::platform::Caught;

extern "C" int VLIBCExecl(const char* path, int flags, ...) {
  static_cast<void>(flags);  // the spawn behaves the same for every flags word
  if (path == nullptr)
    return vesk::platform::Fail(EINVAL);
  va_list ap;
  va_start(ap, flags);
  const int rc = CatchAll(-1, [&] {
    std::vector<std::string> argv{path};
    while (const char* arg = va_arg(ap, const char*))
      argv.emplace_back(arg);
    return vesk::platform::Run(argv);
  });
  va_end(ap);
  return rc;
}

extern "C" int VLIBCExec(const char* program, const char* arg1, const char* arg2, const char* arg3,
                         const char* arg4) try {
  if (program == nullptr)
    return vesk::platform::Fail(EINVAL);
  std::vector<std::string> argv{program};
  for (const char* arg : {arg1, arg2, arg3, arg4}) {
    if (arg == nullptr)
      break;
    argv.emplace_back(arg);
  }
  return vesk::platform::Run(argv);
} catch (...) {
  return Caught(-1);
}

extern "C" int VLIBCErrGet(void) {
  return vesk::platform::LastError();
}

extern "C" int VLIBCFileExist(const char* path) {
  struct stat st;
  return path != nullptr && stat(path, &st) == 0 ? 1 : 0;
}
