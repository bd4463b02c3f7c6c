// The layer's last error code, kept per thread (VLIBCErrGet reads it), and the
// guard that keeps exceptions from crossing the layer's C boundary.
#pragma once

#include <errno.h>

#include <new>

namespace vesk::platform {

void SetLastError(int code);
int LastError();

// Keeps `code` as the last error and returns -1, the failure of most C calls.
inline int Fail(int code) {
  SetLastError(code);
  return -1;
}

// For the handler of a C entry point's function-try-block: keeps ENOMEM (out
// of memory) or EIO as the last error for the exception being handled and
// returns `on_error`, so a C caller never meets an exception.
template <typename R>
R Caught(R on_error) noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    SetLastError(ENOMEM);
  } catch (...) {
    SetLastError(EIO);
  }
  return on_error;
}

// Runs `body` as a C entry point's whole work, as the handler above would.
template <typename R, typename Body>
R CatchAll(R on_error, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return Caught(on_error);
  }
}

}  // namespace vesk::platform
