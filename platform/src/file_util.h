// A bounded whole-file read (for /proc files, whose size stat cannot tell).
#pragma once

#include <cstddef>
#include <string>

#include "vesk_internal/unique_fd.h"

namespace vesk::platform {

// Reads all of `path` into `content`; 0 on success, else an errno value
// (EFBIG when the file holds more than `limit` bytes).
int ReadWholeFile(const std::string& path, size_t limit, std::string* content);

}  // namespace vesk::platform
