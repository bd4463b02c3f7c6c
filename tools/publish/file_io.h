// File helpers of the publisher. Every open uses O_CLOEXEC; content is streamed
// in chunks except where a function says it reads a whole (small) file.
// Failures throw PublishError naming the path.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "vesk_internal/unique_fd.h"

namespace vesk::publish {

// The whole content of a small file (keys, JSON documents).
std::string ReadSmallFile(const std::string& path);

// Writes `content` to `path` through a temporary file in the same directory and
// a rename, so readers never see a partial file.
void WriteFileAtomically(const std::string& path, const std::string& content, mode_t mode = 0644);

// Moves `from` over `to` (same file system).
void RenameFile(const std::string& from, const std::string& to);

void CopyFileContents(const std::string& from, const std::string& to);
bool SameContent(const std::string& a, const std::string& b);
std::uint64_t FileSize(const std::string& path);
// True when the file begins with the given bytes.
bool FileStartsWith(const std::string& path, const std::string& prefix);

// `size` bytes as lowercase hexadecimal.
std::string HexOf(const unsigned char* bytes, size_t size);

// SHA-384 of the file's content, as lowercase hexadecimal.
std::string Sha384Hex(const std::string& path);

// Writes all of `size` bytes to `fd`; throws naming `what` on failure.
void WriteAll(int fd, const void* data, size_t size, const std::string& what);

// Reads a file line by line ("\n" separated, as std::getline splits), in chunks.
class LineReader {
 public:
  explicit LineReader(const std::string& path);
  // The next line without its "\n"; false at the end.
  bool Next(std::string* line);

 private:
  std::string path_;
  UniqueFd fd_;
  std::string pending_;
  bool eof_ = false;
};

// A fresh directory below `parent` removed with its contents on destruction.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& parent);
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace vesk::publish
