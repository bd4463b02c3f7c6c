#include "dataupdate/io_utils.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <typeinfo>
#include <vector>

#include "dataupdate/error.h"
#include "file_copy.h"
#include "json_read.h"
#include "log_sites.h"
#include "unique_fd.h"
#include "vesk/fs.h"
#include "vlib/sysinfo.h"
#include "vlib/vlibc.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

struct DigestContextFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextFree>;

// Larger than the historical 64 bytes: same result for good, failed and empty
// streams, far fewer calls on large files.
constexpr std::streamsize kDigestBlock = std::streamsize{64} * 1024;

// Documents read before, kept while their file is found the same: a run over
// many databases reads the configuration and the server's document once or
// twice for each, and parsing them dominated its cost. Only files settled for
// a second are kept, since a change within the same tick of the file system's
// clock could leave their times as they were; any later change gives the file
// a new change time (a replacement also a new inode).
class KeptDocuments {
 public:
  static constexpr size_t kMaxFile = 128 * 1024;
  static constexpr size_t kMaxKept = 1024 * 1024;  // bytes of text
  static constexpr time_t kSettled = 1;            // seconds

  // The document read from `path` while it had identity `seen`, if kept.
  std::shared_ptr<const Json::Value> Find(const std::string& path, const struct stat& seen) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto it = kept_.find(path);
    if (it == kept_.end() || !Same(it->second.identity, seen))
      return nullptr;
    return it->second.value;
  }

  // Keeps `value`, read from `path` between two stats that both gave `seen`.
  void Keep(const std::string& path, const struct stat& seen,
            std::shared_ptr<const Json::Value> value) {
    timespec now{};
    if (!S_ISREG(seen.st_mode) || static_cast<size_t>(seen.st_size) > kMaxFile ||
        clock_gettime(CLOCK_REALTIME, &now) != 0 || seen.st_ctim.tv_sec + kSettled >= now.tv_sec ||
        seen.st_mtim.tv_sec + kSettled >= now.tv_sec)
      return;
    const std::lock_guard<std::mutex> lock(mutex_);
    auto it = kept_.find(path);
    if (it != kept_.end()) {
      bytes_ -= static_cast<size_t>(it->second.identity.st_size);
      kept_.erase(it);
    }
    if (bytes_ + static_cast<size_t>(seen.st_size) > kMaxKept) {
      kept_.clear();
      bytes_ = 0;
    }
    kept_.emplace(path, Entry{seen, std::move(value)});
    bytes_ += static_cast<size_t>(seen.st_size);
  }

  static bool Same(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mode == b.st_mode && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec && a.st_ctim.tv_sec == b.st_ctim.tv_sec &&
           a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
  }

 private:
  struct Entry {
    struct stat identity;
    std::shared_ptr<const Json::Value> value;
  };
  std::mutex mutex_;
  std::map<std::string, Entry> kept_;
  size_t bytes_ = 0;
};

KeptDocuments& Kept() {
  static KeptDocuments kept;
  return kept;
}

bool PathMissing(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

// The file a write of `path` replaces: a symbolic link is written through, as
// writing in place always did; a dangling one is replaced itself.
std::string WriteTarget(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode))
    return path;
  std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
  return resolved ? std::string(resolved.get()) : path;
}

// A new file beside the target, created exclusively with mode 0666 less the
// umask (what an ordinary create gives), removed again unless Commit() renamed
// it over the target.
class SiblingTempFile {
 public:
  explicit SiblingTempFile(const std::string& target) {
    static std::atomic<unsigned> counter{0};
    const fs::path where(target);
    for (int attempt = 0; attempt < 100 && !fd_; ++attempt) {
      const std::string name = "." + where.filename().string() + ".tmp-" +
                               std::to_string(getpid()) + "-" + std::to_string(counter++);
      path_ = (where.parent_path() / name).string();
      fd_.reset(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
      if (!fd_ && errno != EEXIST)
        break;
    }
    if (!fd_)
      path_.clear();
  }
  ~SiblingTempFile() {
    fd_.reset();
    if (!path_.empty())
      ::unlink(path_.c_str());
  }
  SiblingTempFile(const SiblingTempFile&) = delete;
  SiblingTempFile& operator=(const SiblingTempFile&) = delete;

  explicit operator bool() const { return static_cast<bool>(fd_); }
  int fd() const { return fd_.get(); }

  // Flushes the data to the disk, then renames the file over `target`.
  bool Commit(const std::string& target) {
    if (fsync(fd_.get()) != 0 || ::close(fd_.release()) != 0)
      return false;
    if (std::rename(path_.c_str(), target.c_str()) != 0)
      return false;
    path_.clear();
    return true;
  }

 private:
  std::string path_;
  UniqueFd fd_;
};

// Makes a rename in `dir` durable; a file system that cannot sync a directory
// (EINVAL) has nothing more to do.
bool SyncDirectory(const std::string& dir) {
  UniqueFd fd(open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd)
    return false;
  return fsync(fd.get()) == 0 || errno == EINVAL;
}

}  // namespace

IOUtils::~IOUtils() = default;

std::uint64_t IOUtils::GetSize(const std::string& path) const {
  try {
    fs::file_status status = fs::status(path);
    if (status.type() == fs::file_not_found || status.type() == fs::status_error)
      return 0;
    if (fs::is_regular_file(status))
      return fs::file_size(path);
    if (!fs::is_directory(status))
      return 0;

    std::uint64_t total = 0;
    IterateDirectory(
        path,
        [&total](const std::string& entry) {
          if (fs::is_regular_file(fs::status(entry)))
            total += fs::file_size(entry);
        },
        true);
    return total;
  } catch (const fs::filesystem_error& e) {
    throw UpdateError("Fail to get size on " + path + ": " + e.what());
  }
}

std::pair<std::int64_t, std::uint64_t> IOUtils::GetFsSize(const std::string& path) const {
  boost::system::error_code ec;
  if (!fs::is_directory(path, ec))
    throw UpdateError("Invalid filesystem to testing space");
  fs::space_info space;
  try {
    space = fs::space(path);
  } catch (const fs::filesystem_error&) {
    throw UpdateError("Fail to get available space");
  }
  return {static_cast<std::int64_t>(space.available), space.capacity};
}

namespace {

// ReadJson's work; nullptr for a missing file.
std::shared_ptr<const Json::Value> ReadDocumentFile(const std::string& path) {
  struct stat before {};
  const bool found = stat(path.c_str(), &before) == 0;
  const bool seen = found && S_ISREG(before.st_mode);
  // Optional files (the local configuration) are missing more often than not.
  if (!found && (errno == ENOENT || errno == ENOTDIR))
    return nullptr;
  if (seen) {
    if (auto kept = Kept().Find(path, before))
      return kept;
  }
  std::ifstream in(path);
  if (PathMissing(path))
    return nullptr;
  if (!in.is_open())
    throw UpdateError("Fail to read: " + path);
  Json::Reader reader;
  auto root = std::make_shared<Json::Value>();
  bool parsed = false;
  try {
    parsed = reader.parse(in, *root, true);
  } catch (const std::ios_base::failure&) {
    // The stream library throws on a read error (a directory, an I/O fault)
    // whatever the exception mask says.
    throw UpdateError("Fail to read: " + path);
  } catch (const Json::Exception&) {
    // The reader throws rather than fails for some documents, such as nesting
    // deeper than it allows (1000 levels); those cannot be decoded either.
  }
  if (!parsed)
    throw UpdateError("Fail to decode: " + path);
  struct stat after {};
  if (seen && stat(path.c_str(), &after) == 0 && KeptDocuments::Same(before, after))
    Kept().Keep(path, before, root);
  return root;
}

}  // namespace

Json::Value IOUtils::ReadJson(const std::string& path) const {
  auto document = ReadDocumentFile(path);
  if (!document)
    throw UpdateError("File not exist: " + path, UpdateError::kFileNotExist);
  return *document;
}

std::shared_ptr<const Json::Value> ReadJsonShared(const IOUtils& io, const std::string& path) {
  if (typeid(io) == typeid(IOUtils))
    return ReadDocumentFile(path);
  try {
    return std::make_shared<const Json::Value>(io.ReadJson(path));
  } catch (const UpdateError& e) {
    if (e.code() == UpdateError::kFileNotExist)
      return nullptr;
    throw;
  }
}

void IOUtils::WriteJson(const std::string& path, const Json::Value& value) const {
  std::ostringstream text;
  Json::StyledStreamWriter("\t").write(text, value);
  WriteFileDurably(path, text.str());
}

void WriteFileDurably(const std::string& path, const std::string& text) {
  try {
    fs::path parent = fs::path(path).parent_path();
    if (!parent.empty() && !fs::exists(parent))
      fs::create_directories(parent);
  } catch (const fs::filesystem_error&) {
    throw UpdateError("Fail to create parent folder: " + path);
  }

  // A crash or a full disk part-way through must not leave a truncated file in
  // place of the old one (a configuration would lose its current volume): the
  // text goes to a new file beside the target, which is flushed and then
  // renamed over it, and the directory is flushed after the rename.
  const std::string target = WriteTarget(path);
  SiblingTempFile temp(target);
  if (!temp)
    throw UpdateError("Fail to write: " + path);
  struct stat old;
  if (stat(target.c_str(), &old) == 0 && S_ISREG(old.st_mode)) {
    // The replacement keeps the permissions and, where allowed, the owner.
    static_cast<void>(fchmod(temp.fd(), old.st_mode & 07777));
    static_cast<void>(fchown(temp.fd(), old.st_uid, old.st_gid));
  }
  if (!WriteAll(temp.fd(), text.data(), text.size()) || !temp.Commit(target) ||
      !SyncDirectory(fs::path(target).parent_path().string())) {
    throw UpdateError("Fail to write: " + path);
  }
}

bool IOUtils::FileCreateOver(const std::string& path, int seconds) const {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    throw UpdateError(
        (NoexceptFormat("Failed to get attribute of %s, errno=%d") % path % errno).str());
  }
  auto age = static_cast<std::int32_t>(std::time(nullptr) - st.st_mtime);
  return age > seconds;
}

void IOUtils::RmRf(const std::string& path) const {
  try {
    fs::remove_all(path);
  } catch (const fs::filesystem_error&) {
    throw UpdateError((NoexceptFormat("Fail to remove all: %s") % path).str());
  }
}

void IOUtils::CopyFile(const std::string& from, const std::string& to) const {
  try {
    fs::path target(to);
    if (target.has_parent_path())
      fs::create_directories(target.parent_path());
    if (fs::exists(fs::symlink_status(target)))
      fs::remove(target);
    // A link is copied as a link, a directory as an empty directory; a regular
    // file by reading and writing, which works between file systems too.
    if (fs::is_regular_file(fs::symlink_status(from))) {
      CopyFileContents(from, target.string());
    } else {
      fs::copy(from, target, fs::copy_options::copy_symlinks);
    }
  } catch (const fs::filesystem_error& e) {
    throw UpdateError(
        (NoexceptFormat("Fail to copy from %s to %s: %s") % from % to % e.what()).str());
  }
}

void IOUtils::Download(const std::string& dest, const std::string& url) const {
  const std::string user_agent = VeskGetUserAgent("database");
  log::Write(log::site::kUserAgent, user_agent);
  int rc = VLIBCExecl("/usr/bin/wget", 187, "-N", url.c_str(), "-O", dest.c_str(), "-U",
                      user_agent.c_str(), "--dns-timeout=8", "--connect-timeout=15", "--tries=3",
                      static_cast<const char*>(nullptr));
  if (rc == 0)
    return;
  ::unlink(dest.c_str());  // whatever wget left behind
  throw UpdateError("Fail to wget url: " + url);
}

void IOUtils::VeskMkdir(const std::string& path) const {
  if (VESKFSMkdirP(path.c_str(), 0, 0, -1, -1, -1) != 0) {
    throw UpdateError((NoexceptFormat("Fail to create dir %s") % path).str());
  }
}

void IOUtils::IterateDirectory(const std::string& dir,
                               const std::function<void(const std::string&)>& callback,
                               bool recursive) const {
  struct stat st;
  if (stat(dir.c_str(), &st) != 0)
    throw UpdateError("failed to read file stat: " + dir);
  if (!S_ISDIR(st.st_mode))
    throw UpdateError("not a directory: " + dir);

  const std::string base = (!dir.empty() && dir.back() == '/') ? dir : dir + "/";
  DirHandle handle(opendir(dir.c_str()));
  if (!handle)
    throw UpdateError(std::strerror(errno));

  while (true) {
    errno = 0;
    const dirent* entry = readdir(handle.get());
    if (entry == nullptr) {
      if (errno != 0)
        throw UpdateError(std::strerror(errno));
      return;
    }
    const std::string name = entry->d_name;
    if (entry->d_type == DT_DIR) {
      if (name == "." || name == "..")
        continue;
      if (recursive)
        IterateDirectory(base + name, callback, true);
    }
    callback(base + name);
  }
}

std::string GetSha384(std::istream& in) {
  DigestContext ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha384(), nullptr) != 1) {
    throw UpdateError("Fail to start SHA digest");
  }
  if (in.good()) {
    std::vector<char> block(kDigestBlock);
    while (true) {
      std::streamsize got = in.readsome(block.data(), kDigestBlock);
      if (in.bad() || in.fail())
        throw UpdateError("Fail during reading for SHA digest");
      if (got == 0)
        break;
      EVP_DigestUpdate(ctx.get(), block.data(), static_cast<size_t>(got));
      if (!in.good())
        break;
    }
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(ctx.get(), digest, &length);

  static const char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * std::size_t{length});
  for (unsigned int i = 0; i < length; ++i) {
    text.push_back(kHex[digest[i] >> 4]);
    text.push_back(kHex[digest[i] & 0x0f]);
  }
  return text;
}

std::string FlatFileName(const std::string& name) {
  std::string flat = name;
  for (char& c : flat) {
    if (c == '/' || c == '.')
      c = '_';
  }
  return flat;
}

std::string VeskGetUserAgent(const std::string& component) {
  char buffer[1024];
  if (VLIBSysinfoUserAgentGet(component.c_str(), buffer, sizeof buffer) < 0) {
    throw UpdateError("Fail to generate user agent string");
  }
  return buffer;
}

// NOLINTNEXTLINE(bugprone-exception-escape): ending the process is the contract
boost::format NoexceptFormat(const std::string& format) noexcept {
  boost::format formatter(format);
  formatter.exceptions(boost::io::all_error_bits ^
                       (boost::io::too_many_args_bit | boost::io::too_few_args_bit));
  return formatter;
}

}  // namespace vesk::dataupdate
