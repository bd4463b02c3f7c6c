// IOUtils: every file-system, JSON-file and download operation of the library,
// behind virtual operations so that a substitute can be injected. Stateless:
// operations may run concurrently. Every failure throws UpdateError with the
// default code, except ReadJson of a missing file (kFileNotExist).
//
// Beside it: GetSha384, FlatFileName, VeskGetUserAgent, NoexceptFormat.
#pragma once

#include <json/value.h>

#include <boost/format.hpp>
#include <cstdint>
#include <functional>
#include <istream>
#include <string>
#include <utility>

#include "dataupdate/export.h"

namespace vesk::dataupdate {

class VESKDBUD_EXPORT IOUtils {
 public:
  IOUtils() = default;
  virtual ~IOUtils();

  // Size of a regular file, or the total of the regular files below a
  // directory; 0 for a missing path and for special files.
  virtual std::uint64_t GetSize(const std::string& path) const;
  // (available bytes, capacity bytes) of the file system holding directory `path`.
  virtual std::pair<std::int64_t, std::uint64_t> GetFsSize(const std::string& path) const;
  virtual Json::Value ReadJson(const std::string& path) const;
  // Writes `value` (styled, tab-indented), creating the parent directories.
  // The document goes to a new file beside `path`, is flushed to the disk and
  // renamed over `path` (then the directory is flushed), so a crash or a full
  // disk leaves the old document or the new one, never a part; the replacement
  // keeps the old file's mode, and a link is written through. Throws
  // "Fail to create parent folder: " + path or "Fail to write: " + path (any
  // error of the write itself included); on failure the old file is untouched.
  virtual void WriteJson(const std::string& path, const Json::Value& value) const;
  // True when `path` was last modified more than `seconds` ago.
  virtual bool FileCreateOver(const std::string& path, int seconds) const;
  // Removes `path` and everything below it; a missing path is fine.
  virtual void RmRf(const std::string& path) const;
  // Copies one file (or link, or empty directory) over `to`, creating parents.
  virtual void CopyFile(const std::string& from, const std::string& to) const;
  // Fetches `url` into `dest` with /usr/bin/wget; no partial `dest` survives a failure.
  virtual void Download(const std::string& dest, const std::string& url) const;
  // Creates `path` with every missing parent; an existing directory is fine.
  virtual void VeskMkdir(const std::string& path) const;
  // Calls `callback` with "dir/name" for each entry (not "." and ".."); with
  // `recursive`, a directory's contents are reported before the directory.
  virtual void IterateDirectory(const std::string& dir,
                                const std::function<void(const std::string&)>& callback,
                                bool recursive) const;
};

// The SHA-384 of what `in` yields, as 96 lower-case hex digits. A stream that is
// not good on entry yields the digest of nothing; a read that sets the bad or
// fail flag throws UpdateError("Fail during reading for SHA digest").
VESKDBUD_EXPORT std::string GetSha384(std::istream& in);

// "a/b.db" -> "a_b_db": every "/" and "." becomes "_".
VESKDBUD_EXPORT std::string FlatFileName(const std::string& name);

// The platform's user-agent text for `component`.
VESKDBUD_EXPORT std::string VeskGetUserAgent(const std::string& component);

// A boost::format whose argument-count errors are switched off, so too few or
// too many arguments give text instead of an exception. Never throws: a format
// text that boost::format cannot parse (such as a trailing "%"), or no memory to
// build it, ends the process. The library passes only fixed format texts.
// NOLINTNEXTLINE(bugprone-exception-escape): ending the process is the contract
VESKDBUD_EXPORT boost::format NoexceptFormat(const std::string& format) noexcept;

}  // namespace vesk::dataupdate
