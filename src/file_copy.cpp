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

// Lets the kernel copy with copy_file_range, which moves the data without a
// round trip through this process, shares the extents where the file system
// has reflinks, and advances both offsets. Where it does not apply (another
// file system, an old kernel) nothing is written and the caller's reading loop
// does the whole copy. Returns false with errno on a real failure.
bool KernelCopy(int in, int out, off_t size) {
  off_t copied = 0;
  while (copied < size) {
    const ssize_t n =
        copy_file_range(in, nullptr, out, nullptr, static_cast<size_t>(size - copied), 0);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return copied == 0 &&
             (errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP || errno == EINVAL);
    if (n == 0)
      break;
    copied += n;
  }
  return true;
}

}  // namespace

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

  int error = 0;
  if (!KernelCopy(in.get(), out.get(), st.st_size))
    error = errno;
  // Whatever the kernel did not copy (all of it, or a tail that grew since
  // fstat) is read and written from the current offsets.
  std::vector<char> block(error != 0 ? 0 : kBlock);
  while (error == 0) {
    const ssize_t n = ::read(in.get(), block.data(), block.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n == 0)
      break;
    if (n < 0 || !WriteAll(out.get(), block.data(), static_cast<size_t>(n)))
      error = errno;
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
