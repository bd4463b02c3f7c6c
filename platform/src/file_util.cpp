#include "file_util.h"

#include <errno.h>
#include <fcntl.h>

namespace vesk::platform {

int ReadWholeFile(const std::string& path, size_t limit, std::string* content) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd)
    return errno;
  content->clear();
  char buffer[16384];
  for (;;) {
    ssize_t n = read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return errno;
    }
    if (n == 0)
      return 0;
    if (content->size() + static_cast<size_t>(n) > limit)
      return EFBIG;
    content->append(buffer, static_cast<size_t>(n));
  }
}

}  // namespace vesk::platform
