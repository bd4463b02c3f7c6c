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

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace vesk::fuzz {

[[noreturn]] inline void Fail(const std::string& what) {
  std::fprintf(stderr, "fuzz finding: %s\n", what.c_str());
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

}  // namespace vesk::fuzz
