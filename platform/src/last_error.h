// The layer's last error code, kept per thread (VLIBCErrGet reads it).
#pragma once

namespace vesk::platform {

void SetLastError(int code);
int LastError();

}  // namespace vesk::platform
