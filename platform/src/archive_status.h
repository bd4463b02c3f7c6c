// The outcome of one step of opening or extracting a package: an error code of
// vesk/archive.h and a detail naming the file or entry concerned.
#pragma once

#include <string>
#include <utility>

#include "vesk/archive.h"

namespace vesk::platform::archive {

struct Status {
  int code = VESKARCHIVE_OK;
  std::string detail;
  bool ok() const { return code == VESKARCHIVE_OK; }
};

inline Status Fail(int code, std::string detail) {
  return Status{code, std::move(detail)};
}

}  // namespace vesk::platform::archive
