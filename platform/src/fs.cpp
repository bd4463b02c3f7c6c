#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "last_error.h"
#include "vesk/fs.h"

namespace {

bool IsDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int Fail(int code) {
  vesk::platform::SetLastError(code);
  errno = code;
  return -1;
}

}  // namespace

using vesk::platform::Caught;

extern "C" int VESKFSMkdirP(const char* path, int /*flags*/, int mode, int uid, int gid,
                            int /*acl*/) try {
  if (path == nullptr || *path == '\0')
    return Fail(EINVAL);
  const mode_t dir_mode = mode == 0 ? 0755 : static_cast<mode_t>(mode);
  std::string target(path);
  // The common case, a directory that is already there, costs one lookup
  // instead of two system calls per component.
  if (IsDirectory(target)) {
    vesk::platform::SetLastError(0);
    return 0;
  }

  // Create each missing component from the top; a racing creator is fine.
  for (size_t pos = 1; pos <= target.size(); ++pos) {
    if (pos != target.size() && target[pos] != '/')
      continue;
    std::string prefix = target.substr(0, pos);
    if (prefix.empty() || prefix.back() == '/')
      continue;
    if (mkdir(prefix.c_str(), dir_mode) == 0) {
      if ((uid != -1 || gid != -1) && chown(prefix.c_str(), uid, gid) != 0)
        return Fail(errno);
      continue;
    }
    if (errno != EEXIST)
      return Fail(errno);
    if (!IsDirectory(prefix))
      return Fail(ENOTDIR);
  }
  vesk::platform::SetLastError(0);
  return 0;
} catch (...) {
  return Caught(-1);
}
