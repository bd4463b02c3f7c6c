#include "status_scan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <typeinfo>

#include "dataupdate/update.h"
#include "unique_fd.h"
#include "vesk/root.h"

namespace vesk::dataupdate {
namespace {

constexpr int kMaxDepth = 16;
constexpr size_t kMaxStatusFile = 256 * 1024 * 1024;

// A forward reader of the JSON subset described in the header. Every method
// returns false for anything outside it; no method reads past `end`.
class Scanner {
 public:
  Scanner(const char* begin, const char* end) : p_(begin), end_(end) {}

  // Whitespace as the JSON reader skips it.
  void SkipSpaces() {
    while (p_ < end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r'))
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
  // string "sha384_digest". The layout the library writes is recognised byte
  // for byte first, as it makes up almost all of a large file.
  bool FileStatuses() {
    if (WrittenFileStatuses())
      return true;
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

  // Any value of the subset: a string, an integer or an object.  // Any value of the subset: a
  // string, an integer or an object.
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
  // "file_statuses" exactly as the styled writer puts it at depth 1, with
  // names in ascending order and 96-byte digests; false (and nothing read)
  // for anything else.
  bool WrittenFileStatuses() {
    static constexpr char kOpen[] = " \n\t{\n";
    static constexpr char kName[] = "\t\t\"";
    static constexpr char kMiddle[] = "\" : \n\t\t{\n\t\t\t\"sha384_digest\" : \"";
    static constexpr char kEnd[] = "\"\n\t\t}";
    static constexpr char kNext[] = ",\n";
    static constexpr char kClose[] = "\n\t}";
    static constexpr size_t kDigest = 96;
    const char* p = p_;
    // The sizes are constants, so the comparisons are inlined.
    const auto take = [&](const auto& text) {
      constexpr size_t size = sizeof text - 1;
      if (static_cast<size_t>(end_ - p) < size || std::memcmp(p, text, size) != 0)
        return false;
      p += size;
      return true;
    };
    if (!take(kOpen))
      return false;
    const char* previous = nullptr;
    size_t previous_size = 0;
    while (true) {
      if (!take(kName))
        return false;
      const auto* quote = static_cast<const char*>(std::memchr(p, '"', end_ - p));
      if (quote == nullptr)
        return false;
      const size_t size = static_cast<size_t>(quote - p);
      if (previous != nullptr && !Ascends(previous, previous_size, p, size))
        return false;
      previous = p;
      previous_size = size;
      p = quote;
      if (!take(kMiddle) || static_cast<size_t>(end_ - p) < kDigest)
        return false;
      if (std::memchr(p, '"', kDigest) != nullptr)
        return false;
      p += kDigest;
      if (!take(kEnd))
        return false;
      if (take(kNext))
        continue;
      if (!take(kClose))
        return false;
      p_ = p;
      return true;
    }
  }

  static bool Ascends(const char* a, size_t a_size, const char* b, size_t b_size) {
    const int order = std::memcmp(a, b, a_size < b_size ? a_size : b_size);
    return order < 0 || (order == 0 && a_size < b_size);
  }

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

}  // namespace

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

bool ReadWholeFile(const std::string& path, std::string* text) {
  // Read, not mapped: a writer that truncates the file in place would turn
  // the reading of a mapped page into a SIGBUS.
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat st;
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

std::optional<int> InfoGetter::QuickInstalledVersion(const std::string& id) const {
  // A substitute may read its status from elsewhere, or differently.
  if (typeid(*this) != typeid(InfoGetter) || !io_ || typeid(*io_) != typeid(IOUtils))
    return std::nullopt;
  // Kept for the next call: a run reads the status file more than once, and
  // pages already in place are cheaper to fill than new ones.
  static thread_local std::string text;
  if (!ReadWholeFile(platform::RootPath("/var/lib/data_update/" + id + "/version.json"), &text))
    return std::nullopt;
  return ScanStatusVersion(text.data(), text.size());
}

}  // namespace vesk::dataupdate
