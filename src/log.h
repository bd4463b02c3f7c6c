// The library's one logging module.
//
// Every line goes to syslog as "<file>:<line> <text>". The file labels and line
// numbers are part of the log format that operators' tools match on, so each
// line is a named Site in log_sites.h rather than __FILE__/__LINE__.
// When VESKDBUD_LOG_FILE names a file, each line is also appended there as
// "<level>: <message>" (one write per line, so processes do not interleave).
// Never throws.
#pragma once

#include <string>
#include <type_traits>

namespace vesk::dataupdate::log {

struct Site {
  int priority;      // syslog priority (LOG_ERR, LOG_INFO, ...)
  const char* file;  // label of the "%s:%d " prefix; nullptr for a bare line
  int line;
  const char* text;  // printf-style text after the prefix
};

namespace detail {
void Emit(const Site* site, ...) noexcept;

template <typename T>
auto Arg(const T& value) {
  if constexpr (std::is_same_v<T, std::string>) {
    return value.c_str();
  } else {
    return value;
  }
}
}  // namespace detail

// Formats site.text with `args` (std::string arguments are passed as C strings).
template <typename... Args>
void Write(const Site& site, const Args&... args) noexcept {
  detail::Emit(&site, detail::Arg(args)...);
}

// "emerg", "alert", ..., "debug" for a syslog priority.
const char* LevelName(int priority) noexcept;

}  // namespace vesk::dataupdate::log
