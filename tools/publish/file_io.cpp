#include "file_io.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstring>
#include <vector>

#include "publish_error.h"
#include "vesk_internal/ossl_ptr.h"
#include "vesk_internal/unique_fd.h"

namespace vesk::publish {
namespace {

constexpr size_t kChunk = 64 * 1024;

PublishError Errno(const std::string& what, const std::string& path) {
  return PublishError(what + " " + path + ": " + std::strerror(errno));
}

UniqueFd OpenForReading(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!fd)
    throw Errno("cannot open", path);
  return fd;
}

// Reads up to `size` bytes; fewer only at end of file.
size_t ReadSome(int fd, char* buf, size_t size, const std::string& path) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = read(fd, buf + done, size - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      throw Errno("cannot read", path);
    if (n == 0)
      break;
    done += static_cast<size_t>(n);
  }
  return done;
}

}  // namespace

void WriteAll(int fd, const void* data, size_t size, const std::string& what) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = write(fd, p, size);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      throw Errno("cannot write", what);
    p += n;
    size -= static_cast<size_t>(n);
  }
}

std::string ReadSmallFile(const std::string& path) {
  UniqueFd fd = OpenForReading(path);
  std::string content;
  char buf[4096];
  while (size_t n = ReadSome(fd.get(), buf, sizeof buf, path))
    content.append(buf, n);
  return content;
}

void WriteFileAtomically(const std::string& path, const std::string& content, mode_t mode) {
  const std::string temp = path + ".tmp";
  {
    UniqueFd fd(open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (!fd)
      throw Errno("cannot create", temp);
    if (fchmod(fd.get(), mode) != 0)  // the umask must not widen or narrow the mode
      throw Errno("cannot set the mode of", temp);
    WriteAll(fd.get(), content.data(), content.size(), temp);
    if (close(fd.release()) != 0)
      throw Errno("cannot write", temp);
  }
  RenameFile(temp, path);
}

void RenameFile(const std::string& from, const std::string& to) {
  if (rename(from.c_str(), to.c_str()) != 0)
    throw Errno("cannot rename " + from + " to", to);
}

void CopyFileContents(const std::string& from, const std::string& to) {
  UniqueFd in = OpenForReading(from);
  UniqueFd out(open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out)
    throw Errno("cannot create", to);
  std::vector<char> buf(kChunk);
  while (size_t n = ReadSome(in.get(), buf.data(), buf.size(), from))
    WriteAll(out.get(), buf.data(), n, to);
  if (close(out.release()) != 0)
    throw Errno("cannot write", to);
}

bool SameContent(const std::string& a, const std::string& b) {
  if (FileSize(a) != FileSize(b))
    return false;
  UniqueFd fa = OpenForReading(a);
  UniqueFd fb = OpenForReading(b);
  std::vector<char> ba(kChunk), bb(kChunk);
  for (;;) {
    size_t na = ReadSome(fa.get(), ba.data(), ba.size(), a);
    size_t nb = ReadSome(fb.get(), bb.data(), bb.size(), b);
    if (na != nb || std::memcmp(ba.data(), bb.data(), na) != 0)
      return false;
    if (na == 0)
      return true;
  }
}

std::uint64_t FileSize(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0)
    throw Errno("cannot stat", path);
  return static_cast<std::uint64_t>(st.st_size);
}

bool FileStartsWith(const std::string& path, const std::string& prefix) {
  UniqueFd fd = OpenForReading(path);
  std::string head(prefix.size(), '\0');
  return ReadSome(fd.get(), &head[0], head.size(), path) == prefix.size() && head == prefix;
}

LineReader::LineReader(const std::string& path) : path_(path), fd_(OpenForReading(path)) {}

bool LineReader::Next(std::string* line) {
  for (;;) {
    size_t nl = pending_.find('\n');
    if (nl != std::string::npos) {
      line->assign(pending_, 0, nl);
      pending_.erase(0, nl + 1);
      return true;
    }
    if (eof_) {
      if (pending_.empty())
        return false;
      line->swap(pending_);
      pending_.clear();
      return true;
    }
    char buf[8192];
    size_t n = ReadSome(fd_.get(), buf, sizeof buf, path_);
    eof_ = n < sizeof buf;
    pending_.append(buf, n);
  }
}

ScratchDir::ScratchDir(const std::string& parent) {
  std::string pattern = parent + "/.veskdbud-publish-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr)
    throw Errno("cannot create a scratch directory in", parent);
  path_ = buf.data();
}

ScratchDir::~ScratchDir() {
  boost::system::error_code ec;  // a destructor reports nothing; leftovers are named .veskdbud-*
  boost::filesystem::remove_all(path_, ec);
}

std::string Sha384Hex(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!fd)
    throw PublishError("cannot read " + path + ": " + std::strerror(errno));
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha384(), nullptr) != 1)
    throw PublishError("SHA-384 unavailable");
  std::vector<char> buf(256 * 1024);
  for (;;) {
    const ssize_t n = read(fd.get(), buf.data(), buf.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      throw PublishError("cannot read " + path + ": " + std::strerror(errno));
    if (n == 0)
      break;
    EVP_DigestUpdate(ctx.get(), buf.data(), static_cast<size_t>(n));
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest, &len) != 1)
    throw PublishError("SHA-384 failed");
  return HexOf(digest, len);
}

std::string HexOf(const unsigned char* bytes, size_t size) {
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (size_t i = 0; i < size; ++i) {
    hex += kHex[bytes[i] >> 4];
    hex += kHex[bytes[i] & 15];
  }
  return hex;
}

}  // namespace vesk::publish
