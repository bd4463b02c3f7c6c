#include "manifest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include <boost/filesystem.hpp>
#include <fstream>

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "file_copy.h"
#include "log_sites.h"
#include "unique_fd.h"
#include "vesk/root.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

constexpr std::string_view kFirstLine = "veskdbud-manifest 1";
constexpr std::string_view kVersionKey = "data_version ";
constexpr std::string_view kCountKey = "files ";
// No name reaches this (PATH_MAX escaped, twice over): a longer line is damage.
constexpr size_t kLongestLine = 1 << 20;

std::string Below(const std::string& install_prefix, const std::string& name) {
  return (fs::path(install_prefix) / name).string();
}

// The lines of a file through a buffer of its own: a manifest of many files
// read whole would cost more in fresh memory than in the scan.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd), buffer_(1 << 16, '\0') {}

  // The next line without its line feed; false at the end of the file, after
  // a read error, and for a last line with no line feed (the file is not whole).
  bool Next(std::string_view* line) {
    for (;;) {
      const char* start = buffer_.data() + begin_;
      const void* feed = std::memchr(start, '\n', end_ - begin_);
      if (feed != nullptr) {
        const auto length = static_cast<size_t>(static_cast<const char*>(feed) - start);
        *line = std::string_view(start, length);
        begin_ += length + 1;
        return true;
      }
      if (ended_)
        return false;
      std::memmove(buffer_.data(), start, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
      if (end_ == buffer_.size()) {
        if (buffer_.size() >= kLongestLine) {
          ended_ = failed_ = true;
          continue;
        }
        buffer_.resize(buffer_.size() * 2);
      }
      const ssize_t n = read(fd_, buffer_.data() + end_, buffer_.size() - end_);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0) {
        ended_ = true;
        failed_ = n < 0;
        continue;
      }
      end_ += static_cast<size_t>(n);
    }
  }

  // True when nothing but whole lines was read and nothing is left.
  bool AtCleanEnd() {
    std::string_view rest;
    return !Next(&rest) && begin_ == end_ && !failed_;
  }

 private:
  int fd_;
  std::string buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool ended_ = false;
  bool failed_ = false;
};

template <typename Number>
bool ParseNumber(std::string_view text, Number* value) {
  const char* end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, *value);
  return !text.empty() && error == std::errc() && at == end;
}

template <typename Number>
bool ParseKeyed(std::string_view line, std::string_view key, Number* value) {
  return line.substr(0, key.size()) == key && ParseNumber(line.substr(key.size()), value);
}

std::string Escape(const std::string& name) {
  std::string text;
  text.reserve(name.size());
  for (const char c : name) {
    if (c == '\\')
      text += "\\\\";
    else if (c == '\n')
      text += "\\n";
    else
      text += c;
  }
  return text;
}

bool Unescape(std::string_view text, std::string* name) {
  name->clear();
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\\') {
      if (++i == text.size() || (text[i] != '\\' && text[i] != 'n'))
        return false;
      c = text[i] == 'n' ? '\n' : '\\';
    }
    name->push_back(c);
  }
  return !name->empty();
}

// One file's line: "<size> <sha384> <name>".
bool ParseEntry(std::string_view line, std::uint64_t* size, std::string_view* sha384,
                std::string* name) {
  const size_t first = line.find(' ');
  const size_t second = first == std::string_view::npos ? first : line.find(' ', first + 1);
  if (second == std::string_view::npos || !ParseNumber(line.substr(0, first), size))
    return false;
  *sha384 = line.substr(first + 1, second - first - 1);
  return !sha384->empty() && Unescape(line.substr(second + 1), name);
}

// Calls `each(name, size, sha384)` for every file of the stored manifest of
// `id` in turn while it returns true. nullopt (logged) when there is no
// usable manifest of release `data_version`; else whether `each` saw all.
template <typename Each>
std::optional<bool> ScanStoredManifest(const std::string& id, int data_version, Each each) {
  const std::string path = ManifestPath(id);
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    const bool missing = !fd && (errno == ENOENT || errno == ENOTDIR);
    log::Write(log::site::kManifestUnreadable,
               std::string(missing ? "File not exist: " : "Fail to read: ") + path);
    return std::nullopt;
  }
  LineReader lines(fd.get());
  std::string_view line;
  std::int64_t version = 0;
  std::uint64_t count = 0;
  if (!lines.Next(&line) || line != kFirstLine || !lines.Next(&line) ||
      !ParseKeyed(line, kVersionKey, &version) || !lines.Next(&line) ||
      !ParseKeyed(line, kCountKey, &count)) {
    log::Write(log::site::kManifestUnreadable, "Fail to decode: " + path);
    return std::nullopt;
  }
  if (version != data_version) {
    log::Write(log::site::kManifestNotOfRelease, path, data_version);
    return std::nullopt;
  }
  std::string name;
  std::uint64_t size = 0;
  std::string_view sha384;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (!lines.Next(&line) || !ParseEntry(line, &size, &sha384, &name)) {
      log::Write(log::site::kManifestUnreadable, "Fail to decode: " + path);
      return std::nullopt;
    }
    if (!each(name, size, sha384))
      return false;
  }
  if (!lines.AtCleanEnd()) {
    log::Write(log::site::kManifestUnreadable, "Fail to decode: " + path);
    return std::nullopt;
  }
  return true;
}

// Whether `name` below the open directory `dir` is a regular file of `size`
// bytes; logs the first kind of failure.
bool FileHolds(int dir, const std::string& install_prefix, const std::string& name,
               std::uint64_t size) {
  // Names are relative; a leading "/" still means below the install directory.
  const size_t relative = name.find_first_not_of('/');
  struct stat st;
  if (relative == std::string::npos || fstatat(dir, name.c_str() + relative, &st, 0) != 0 ||
      !S_ISREG(st.st_mode)) {
    log::Write(log::site::kFileGone, Below(install_prefix, name));
    return false;
  }
  if (static_cast<std::uint64_t>(st.st_size) != size) {
    log::Write(log::site::kFileSizeMismatch, Below(install_prefix, name));
    return false;
  }
  return true;
}

UniqueFd OpenInstallDirectory(const std::string& install_prefix) {
  UniqueFd dir(open(install_prefix.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!dir)
    log::Write(log::site::kFileGone, install_prefix);
  return dir;
}

}  // namespace

std::string ManifestPath(const std::string& id) {
  return platform::RootPath((NoexceptFormat("/var/lib/data_update/%s/manifest") % id).str());
}

std::optional<Manifest> ReadStoredManifest(const std::string& id, int data_version) {
  Manifest manifest;
  const auto add = [&manifest](const std::string& name, std::uint64_t size,
                               std::string_view sha384) {
    manifest[name] = ManifestEntry{std::string(sha384), size};
    return true;
  };
  if (!ScanStoredManifest(id, data_version, add))
    return std::nullopt;
  return manifest;
}

bool StoredManifestHolds(const std::string& id, int data_version,
                         const std::string& install_prefix) {
  const UniqueFd dir = OpenInstallDirectory(install_prefix);
  if (!dir)
    return false;
  const auto holds = [&](const std::string& name, std::uint64_t size, std::string_view) {
    return FileHolds(dir.get(), install_prefix, name, size);
  };
  const std::optional<bool> all = ScanStoredManifest(id, data_version, holds);
  return all && *all;
}

void WriteStoredManifest(const std::string& id, int data_version, const Manifest& manifest) {
  std::string text;
  text.reserve(manifest.size() * 128 + 64);
  text.append(kFirstLine).append("\n");
  text.append(kVersionKey).append(std::to_string(data_version)).append("\n");
  text.append(kCountKey).append(std::to_string(manifest.size())).append("\n");
  for (const auto& [name, entry] : manifest) {
    text.append(std::to_string(entry.size)).append(" ").append(entry.sha384).append(" ");
    text.append(Escape(name)).append("\n");
  }
  WriteFileDurably(ManifestPath(id), text);
}

void RemoveStoredManifest(const std::string& id) {
  const std::string path = ManifestPath(id);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    throw UpdateError("Fail to remove all: " + path);
  // The removal must be on the disk before any installed file changes.
  const std::string dir = fs::path(path).parent_path().string();
  UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd)
    static_cast<void>(fsync(fd.get()));
}

bool ManifestHolds(const Manifest& manifest, const std::string& install_prefix) {
  const UniqueFd dir = OpenInstallDirectory(install_prefix);
  if (!dir)
    return false;
  for (const auto& [name, entry] : manifest) {
    if (!FileHolds(dir.get(), install_prefix, name, entry.size))
      return false;
  }
  return true;
}

bool ManifestMatchesTree(const Manifest& manifest, const std::string& install_prefix,
                         const std::set<std::string>& verified) {
  bool intact = ManifestHolds(manifest, install_prefix);
  if (!intact)
    return false;
  for (const auto& [name, entry] : manifest) {
    if (verified.count(name) != 0)
      continue;
    const std::string path = Below(install_prefix, name);
    std::ifstream in(path, std::ios::binary);
    if (GetSha384(in) != entry.sha384) {
      log::Write(log::site::kDigestMismatch, path);
      intact = false;
    }
  }
  try {
    const fs::path base(install_prefix);
    for (fs::recursive_directory_iterator it(base), end; it != end; ++it) {
      if (fs::is_directory(it->symlink_status()))
        continue;
      const std::string name = it->path().lexically_relative(base).string();
      if (manifest.count(name) == 0) {
        log::Write(log::site::kFileNotOfRelease, it->path().string());
        intact = false;
      }
    }
  } catch (const fs::filesystem_error& e) {
    log::Write(log::site::kFileGone, install_prefix);
    return false;
  }
  return intact;
}

Manifest ManifestFromStatuses(const std::map<std::string, FileStatus>& statuses,
                              const std::string& install_prefix) {
  Manifest manifest;
  for (const auto& [name, status] : statuses) {
    const std::string relative = !name.empty() && name[0] == '/' ? name.substr(1) : name;
    struct stat st;
    const std::string path = Below(install_prefix, relative);
    if (stat(path.c_str(), &st) != 0)
      throw UpdateError("Fail to get size on " + path);
    manifest[relative] =
        ManifestEntry{status.sha384_digest, static_cast<std::uint64_t>(st.st_size)};
  }
  return manifest;
}

}  // namespace vesk::dataupdate
