#include "status_scan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <mutex>
#include <typeinfo>
#include <vector>

#include "dataupdate/update.h"
#include "unique_fd.h"
#include "vesk/root.h"

namespace vesk::dataupdate {
namespace {

// Whether name `a` comes strictly before name `b` in byte order.
bool Ascends(const char* a, size_t a_size, const char* b, size_t b_size) {
  const int order = std::memcmp(a, b, a_size < b_size ? a_size : b_size);
  return order < 0 || (order == 0 && a_size < b_size);
}

constexpr int kMaxDepth = 16;
constexpr size_t kStreamWindow = 64 * 1024;
constexpr time_t kSettled = 1;  // seconds
constexpr size_t kMaxStatusFile = 256 * 1024 * 1024;

// Whitespace as the JSON reader skips it.
bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// A forward reader of the JSON subset described in the header. Every method
// returns false for anything outside it; no method reads past `end`.
class Scanner {
 public:
  Scanner(const char* begin, const char* end) : p_(begin), end_(end) {}

  void SkipSpaces() {
    while (p_ < end_ && IsSpace(*p_))
      ++p_;
  }

  bool Take(char c) {
    SkipSpaces();
    if (p_ >= end_ || *p_ != c)
      return false;
    ++p_;
    return true;
  }

  bool AtEnd() {
    SkipSpaces();
    return p_ == end_;
  }

  // A string; the text holds no backslash (ScanStatusVersion checks it
  // first), so there is no escape and its bytes are those between the quotes.
  bool String(const char** text, size_t* size) {
    if (!Take('"'))
      return false;
    const auto* close = static_cast<const char*>(std::memchr(p_, '"', end_ - p_));
    if (close == nullptr)
      return false;
    *text = p_;
    *size = static_cast<size_t>(close - p_);
    p_ = close + 1;
    return true;
  }

  // An optional "-" and 1 to 18 digits that no other character of a number
  // follows (the reader would take those into the token).
  bool Integer(long long* value) {
    SkipSpaces();
    const bool negative = p_ < end_ && *p_ == '-';
    if (negative)
      ++p_;
    long long v = 0;
    int digits = 0;
    for (; p_ < end_ && *p_ >= '0' && *p_ <= '9'; ++p_) {
      if (++digits > 18)
        return false;
      v = v * 10 + (*p_ - '0');
    }
    if (digits == 0 ||
        (p_ < end_ && (*p_ == '.' || *p_ == 'e' || *p_ == 'E' || *p_ == '+' || *p_ == '-')))
      return false;
    *value = negative ? -v : v;
    return true;
  }

  // An object whose member names ascend strictly; `member(name, size)` reads
  // each member's value.
  template <typename Member>
  bool Object(int depth, const Member& member) {
    if (depth > kMaxDepth || !Take('{'))
      return false;
    if (Take('}'))
      return true;
    const char* previous = nullptr;
    size_t previous_size = 0;
    while (true) {
      const char* name = nullptr;
      size_t size = 0;
      if (!String(&name, &size) || !Take(':'))
        return false;
      if (previous != nullptr && !Ascends(previous, previous_size, name, size))
        return false;
      previous = name;
      previous_size = size;
      if (!member(name, size))
        return false;
      if (!Take(','))
        return Take('}');
    }
  }

  // The value of "file_statuses": an object of objects that each hold a
  // string "sha384_digest".
  bool FileStatuses() {
    return Object(2, [this](const char*, size_t) {
      bool digest = false;
      const bool ok = Object(3, [&](const char* name, size_t size) {
        if (size != 13 || std::memcmp(name, "sha384_digest", 13) != 0)
          return Value(3);
        const char* value = nullptr;
        size_t value_size = 0;
        digest = true;
        return String(&value, &value_size);
      });
      return ok && digest;
    });
  }

  // Any value of the subset: a string, an integer or an object.
  bool Value(int depth) {
    SkipSpaces();
    if (p_ >= end_)
      return false;
    if (*p_ == '"') {
      const char* text = nullptr;
      size_t size = 0;
      return String(&text, &size);
    }
    if (*p_ == '{')
      return Object(depth + 1, [&](const char*, size_t) { return Value(depth + 1); });
    long long ignored = 0;
    return Integer(&ignored);
  }

 private:
  const char* p_;
  const char* end_;
};

bool Named(const char* name, size_t size, const char* expected) {
  return size == std::strlen(expected) && std::memcmp(name, expected, size) == 0;
}

// What std::stoi gives for an optional "-" and 1 to 9 digits.
std::optional<int> Digits(const char* text, size_t size) {
  size_t i = size > 0 && text[0] == '-' ? 1 : 0;
  if (size == i || size - i > 9)
    return std::nullopt;
  int value = 0;
  for (; i < size; ++i) {
    if (text[i] < '0' || text[i] > '9')
      return std::nullopt;
    value = value * 10 + (text[i] - '0');
  }
  return text[0] == '-' ? -value : value;
}

// A view of a file through a small buffer that moves forward: [p, end) are the
// bytes not yet taken. Every byte read is checked for a backslash, as the
// whole-text scan checks the whole text.
class Window {
 public:
  explicit Window(int fd) : fd_(fd), buffer_(kStreamWindow) { p = end = buffer_.data(); }

  // At least `want` bytes in [p, end) unless the file ends first; false on a
  // read error or a backslash.
  bool Fill(size_t want) {
    if (static_cast<size_t>(end - p) >= want || ended_)
      return true;
    const size_t kept = static_cast<size_t>(end - p);
    std::memmove(buffer_.data(), p, kept);
    p = buffer_.data();
    end = p + kept;
    while (!ended_ && end < buffer_.data() + buffer_.size()) {
      char* to = buffer_.data() + (end - buffer_.data());
      const ssize_t n = read(fd_, to, static_cast<size_t>(buffer_.data() + buffer_.size() - to));
      if (n < 0 && errno == EINTR)
        continue;
      if (n < 0 || (n > 0 && std::memchr(to, '\\', static_cast<size_t>(n)) != nullptr))
        return false;
      ended_ = n == 0;
      end += n;
    }
    return true;
  }

  // Takes the token `expected` when it comes next after JSON whitespace, so
  // that the layout of the writer's indentation does not matter.
  template <size_t N>
  bool Take(const char (&expected)[N]) {
    SkipSpaces();
    if (static_cast<size_t>(end - p) < N - 1 || std::memcmp(p, expected, N - 1) != 0)
      return false;
    p += N - 1;
    return true;
  }

  // A string token after whitespace: its bytes, up to the closing quote.
  bool String(const char** text, size_t* size) {
    if (!Take("\""))
      return false;
    const auto* quote = static_cast<const char*>(std::memchr(p, '"', end - p));
    if (quote == nullptr)
      return false;
    *text = p;
    *size = static_cast<size_t>(quote - p);
    p = quote + 1;
    return true;
  }

  void SkipSpaces() {
    while (p < end && IsSpace(*p))
      ++p;
  }

  bool ended() const { return ended_; }

  const char* p = nullptr;
  const char* end = nullptr;

 private:
  int fd_;
  std::vector<char> buffer_;
  bool ended_ = false;
};

}  // namespace

std::optional<int> ScanWrittenStatus(int fd) {
  // The document IOUtils::WriteJson(DatabaseStatus::ToJson(status)) gives with
  // at least one file, token by token with any whitespace between; each piece
  // is also what the whole-text scan accepts.
  static constexpr size_t kLookahead = 8192;  // more than any entry with a name within PATH_MAX
  static constexpr size_t kDigest = 96;
  Window w(fd);
  const char* text = nullptr;
  size_t size = 0;
  if (!w.Fill(kLookahead) || !w.Take("{") || !w.Take("\"data_version\"") || !w.Take(":") ||
      !w.String(&text, &size))
    return std::nullopt;
  const std::optional<int> version = Digits(text, size);
  if (!version || !w.Take(",") || !w.Take("\"file_statuses\"") || !w.Take(":") || !w.Take("{"))
    return std::nullopt;
  std::vector<char> previous(kStreamWindow);  // no name is longer than the window
  size_t previous_size = 0;
  bool first = true;
  while (true) {
    if (!w.Fill(kLookahead) || !w.String(&text, &size))
      return std::nullopt;
    if (!first && !Ascends(previous.data(), previous_size, text, size))
      return std::nullopt;
    std::memcpy(previous.data(), text, size);
    previous_size = size;
    first = false;
    if (!w.Take(":") || !w.Take("{") || !w.Take("\"sha384_digest\"") || !w.Take(":") ||
        !w.String(&text, &size) || size != kDigest || !w.Take("}"))
      return std::nullopt;
    if (w.Take(","))
      continue;
    if (!w.Take("}") || !w.Take(",") || !w.Take("\"last_fetch_time\"") || !w.Take(":"))
      return std::nullopt;
    break;
  }
  // The time stamp: an integer within 32 bits that no other character of a
  // number follows, then the closing brace and nothing but whitespace.
  w.SkipSpaces();
  const bool negative = w.p < w.end && *w.p == '-';
  if (negative)
    ++w.p;
  long long value = 0;
  int digits = 0;
  for (; w.p < w.end && *w.p >= '0' && *w.p <= '9'; ++w.p) {
    if (++digits > 10)
      return std::nullopt;
    value = value * 10 + (*w.p - '0');
  }
  if (negative)
    value = -value;
  if (digits == 0 || value < INT_MIN || value > INT_MAX || !w.Take("}"))
    return std::nullopt;
  while (true) {
    w.SkipSpaces();
    if (w.p < w.end)
      return std::nullopt;
    if (w.ended())
      return version;
    if (!w.Fill(1))
      return std::nullopt;
  }
}

std::optional<int> ScanStatusVersion(const char* text, size_t size) {
  // One pass over the whole text spares a look for escapes in every string.
  if (std::memchr(text, '\\', size) != nullptr)
    return std::nullopt;
  Scanner s(text, text + size);
  std::optional<int> version;
  bool fetch_time = false;
  const bool ok = s.Object(1, [&](const char* name, size_t n) {
    if (Named(name, n, "data_version")) {
      const char* value = nullptr;
      size_t value_size = 0;
      if (!s.String(&value, &value_size))
        return false;
      version = Digits(value, value_size);
      return version.has_value();
    }
    if (Named(name, n, "last_fetch_time")) {
      long long value = 0;
      fetch_time = s.Integer(&value) && value >= INT_MIN && value <= INT_MAX;
      return fetch_time;
    }
    if (Named(name, n, "file_statuses"))
      return s.FileStatuses();
    return s.Value(1);
  });
  if (!ok || !fetch_time || !s.AtEnd())
    return std::nullopt;
  return version;
}

bool ReadWholeFile(const std::string& path, std::string* text, struct stat* identity) {
  // Read, not mapped: a writer that truncates the file in place would turn
  // the reading of a mapped page into a SIGBUS.
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat& st = *identity;
  if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<std::uint64_t>(st.st_size) > kMaxStatusFile)
    return false;
  text->resize(static_cast<size_t>(st.st_size));
  size_t done = 0;
  while (done < text->size()) {
    const ssize_t n = read(fd.get(), &(*text)[done], text->size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;  // an error, or the file shrank: the full reading tells
    done += static_cast<size_t>(n);
  }
  char more = 0;
  return read(fd.get(), &more, 1) == 0;  // else it grew while it was read
}

static bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
         a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

std::optional<int> InfoGetter::QuickInstalledVersion(const std::string& id) const {
  // A substitute may read its status from elsewhere, or differently.
  if (typeid(*this) != typeid(InfoGetter) || !io_ || typeid(*io_) != typeid(IOUtils))
    return std::nullopt;
  const std::string path = platform::RootPath("/var/lib/data_update/" + id + "/version.json");

  // The last file read, kept while it is found the same: a run reads the
  // status once in the tool and once under the update lock. A file changed
  // less than kSettled ago is never kept, since a change within the same tick
  // of the file system's clock could leave its times as they were.
  struct Memo {
    std::string path;
    struct stat identity {};
    int version = 0;
  };
  static std::mutex memo_mutex;
  static Memo memo;
  struct stat now_seen {};
  if (stat(path.c_str(), &now_seen) != 0)
    return std::nullopt;  // missing or unreadable: the full reading tells
  {
    const std::lock_guard<std::mutex> lock(memo_mutex);
    if (memo.path == path && SameFile(memo.identity, now_seen))
      return memo.version;
  }

  // The layout this library writes is read through a small buffer: a large
  // file read whole would cost more in fresh memory than in the scan.
  struct stat identity {};
  std::optional<int> version;
  {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (fd && fstat(fd.get(), &identity) == 0 && S_ISREG(identity.st_mode))
      version = ScanWrittenStatus(fd.get());
  }
  if (!version) {
    std::string text;
    if (!ReadWholeFile(path, &text, &identity))
      return std::nullopt;
    version = ScanStatusVersion(text.data(), text.size());
  }
  timespec clock{};
  if (version && clock_gettime(CLOCK_REALTIME, &clock) == 0 &&
      identity.st_ctim.tv_sec + kSettled < clock.tv_sec &&
      identity.st_mtim.tv_sec + kSettled < clock.tv_sec) {
    const std::lock_guard<std::mutex> lock(memo_mutex);
    memo = Memo{path, identity, *version};
  }
  return version;
}

}  // namespace vesk::dataupdate
