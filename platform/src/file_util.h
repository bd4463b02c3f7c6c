// Small file helpers of the platform layer: an owning descriptor and a bounded
// whole-file read (for /proc files, whose size stat cannot tell).
#pragma once

#include <unistd.h>

#include <cstddef>
#include <string>
#include <utility>

namespace vesk::platform {

// Owns one file descriptor; closes it on destruction. Move-only.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = other.release();
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset() {
    if (fd_ >= 0)
      close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

// Reads all of `path` into `content`; 0 on success, else an errno value
// (EFBIG when the file holds more than `limit` bytes).
int ReadWholeFile(const std::string& path, size_t limit, std::string* content);

}  // namespace vesk::platform
