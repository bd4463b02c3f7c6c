#include "file_copy.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <vector>

#include "unique_fd.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

constexpr size_t kBlock = 256 * 1024;

[[noreturn]] void Fail(const std::string& from, const std::string& to, int error) {
  throw fs::filesystem_error("copy_file", from, to,
                             boost::system::error_code(error, boost::system::system_category()));
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      if (n == 0)
        errno = EIO;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

void CopyFileContents(const std::string& from, const std::string& to) {
  UniqueFd in(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st;
  if (!in || fstat(in.get(), &st) != 0)
    Fail(from, to, errno);
  if (!S_ISREG(st.st_mode))
    Fail(from, to, EINVAL);
  UniqueFd out(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 07777));
  if (!out)
    Fail(from, to, errno);

  std::vector<char> block(kBlock);
  int error = 0;
  for (;;) {
    const ssize_t n = ::read(in.get(), block.data(), block.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n == 0)
      break;
    if (n < 0 || !WriteAll(out.get(), block.data(), static_cast<size_t>(n))) {
      error = errno;
      break;
    }
  }
  if (error == 0 && ::close(out.release()) != 0)
    error = errno;
  if (error != 0) {
    out.reset();
    ::unlink(to.c_str());
    Fail(from, to, error);
  }
}

}  // namespace vesk::dataupdate
