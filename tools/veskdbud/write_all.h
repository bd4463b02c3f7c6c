// Writes a whole text to a descriptor, resuming after short writes.
#pragma once

#include <unistd.h>

#include <string>

namespace vesk::cli {

inline bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0)
      return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace vesk::cli
