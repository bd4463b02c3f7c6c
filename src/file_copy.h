// Copying a file's contents, within a file system and between them.
//
// Boost.Filesystem 1.74 copies through copy_file_range(2), which current
// kernels refuse between different file systems (EXDEV) and Boost does not
// fall back from; the volume and the root file system are different file
// systems on every appliance. This copy falls back to reading and writing.
#pragma once

#include <cstddef>
#include <string>

namespace vesk::dataupdate {

// Creates `to`, which must not exist, with the permission bits of the regular
// file `from` and its contents. Throws boost::filesystem::filesystem_error
// naming both paths; a failure part-way (a full disk) removes what was written.
void CopyFileContents(const std::string& from, const std::string& to);

// Writes all `size` bytes, retrying short and interrupted writes; false with
// errno set (EIO for a write that wrote nothing) otherwise.
bool WriteAll(int fd, const char* data, size_t size);

// Replaces `path` (creating its parent directories) by a file holding `text`
// so that a crash leaves either the old file or the whole new one: a new file
// beside it, flushed, renamed over it, the directory flushed. Throws
// UpdateError "Fail to write: <path>".
void WriteFileDurably(const std::string& path, const std::string& text);

}  // namespace vesk::dataupdate
