// Shared helpers of the fuzz harnesses. A harness defines LLVMFuzzerTestOneInput;
// it is linked with libFuzzer in the fuzz build (clang) and with replay_main.cpp
// in every test build, where it replays its corpus and regression inputs.
//
// A harness reports a finding by ending the process: Fail() prints what broke
// and aborts, and an exception of a type the harness does not accept escapes
// LLVMFuzzerTestOneInput, which ends in std::terminate. Either way libFuzzer
// keeps the input as a crash and the replay test fails.
#pragma once

#include <json/reader.h>
#include <json/value.h>
#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace vesk::fuzz {

// Reports a finding and ends the process; the message may hold any bytes (names
// taken from the input), which are printed escaped.
[[noreturn]] inline void Fail(const std::string& what) {
  std::string shown;  // printable ASCII, anything else as \xNN
  for (const char c : what) {
    char escaped[5];
    std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
    shown += c >= 0x20 && c < 0x7f && c != '\\' ? std::string(1, c) : std::string(escaped);
  }
  std::fprintf(stderr, "fuzz finding: %s\n", shown.c_str());
  std::fflush(stderr);
  std::abort();
}

inline std::string AsText(const std::uint8_t* data, std::size_t size) {
  return size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

// Parses `text` as the library reads its documents (Json::Reader, comments kept).
// False when the reader rejects it, including its own exceptions (such as
// nesting deeper than it allows).
inline bool ParseJson(const std::string& text, Json::Value* root) {
  try {
    Json::Reader reader;
    return reader.parse(text, *root, true);
  } catch (const Json::Exception&) {
    return false;
  }
}

// Writes `bytes` as the whole content of `path`.
inline void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())) || !out.flush())
    Fail("cannot write " + path);
}

// A private directory below $TMPDIR (or /tmp) for the life of the process: made
// when constructed, removed with everything below it when destroyed. A harness
// keeps one in a function-local static, so it is made once and removed when the
// process ends normally.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& tag) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                          "/veskdbud-fuzz-" + tag + "-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
      Fail("cannot make a temporary directory from " + pattern);
    path_ = pattern;
  }
  ~ScratchDir() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

}  // namespace vesk::fuzz
