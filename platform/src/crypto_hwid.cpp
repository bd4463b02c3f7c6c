#include "vesk/crypto_hwid.h"

#include <errno.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "file_util.h"
#include "last_error.h"
#include "vesk/root.h"

namespace vesk::platform {
namespace {

constexpr char kMachineIdPath[] = "/etc/machine-id";
constexpr size_t kMachineIdLimit = 4096;  // the file holds 33 bytes; more is not a machine id

// A sandbox that provides its own machine id is used even when that file is
// empty (so failure can be tested); one that does not falls back to the host's.
std::string MachineIdFile() {
  if (!SandboxRoot().empty()) {
    std::string sandboxed = RootPath(kMachineIdPath);
    struct stat st;
    if (stat(sandboxed.c_str(), &st) == 0)
      return sandboxed;
  }
  return kMachineIdPath;
}

std::string Trimmed(const std::string& text) {
  const char* kSpace = " \t\r\n\v\f";
  const size_t first = text.find_first_not_of(kSpace);
  if (first == std::string::npos)
    return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

}  // namespace
}  // namespace vesk::platform

using vesk::platform::Caught;

extern "C" veskcrypto_hwid* veskcrypto_hwid_init(void) {
  // A C struct released by veskcrypto_hwid_free, hence calloc.
  auto* ctx = static_cast<veskcrypto_hwid*>(std::calloc(1, sizeof(veskcrypto_hwid)));
  if (ctx == nullptr)
    vesk::platform::SetLastError(ENOMEM);
  return ctx;
}

extern "C" int veskcrypto_hwid_str(veskcrypto_hwid* ctx, int /*selector*/) try {
  if (ctx == nullptr) {
    vesk::platform::SetLastError(EINVAL);
    return 0;
  }
  ctx->str[0] = '\0';
  std::string content;
  if (int error = vesk::platform::ReadWholeFile(vesk::platform::MachineIdFile(),
                                                vesk::platform::kMachineIdLimit, &content);
      error != 0) {
    vesk::platform::SetLastError(error);
    return 0;
  }
  const std::string id = vesk::platform::Trimmed(content);
  if (id.empty()) {
    vesk::platform::SetLastError(ENODATA);
    return 0;
  }

  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(id.data(), id.size(), digest, &length, EVP_sha256(), nullptr) != 1 ||
      2 * std::size_t{length} >= sizeof ctx->str) {
    vesk::platform::SetLastError(EIO);
    return 0;
  }
  static constexpr char kHex[] = "0123456789abcdef";
  for (std::size_t i = 0; i < length; ++i) {
    ctx->str[2 * i] = kHex[digest[i] >> 4];
    ctx->str[2 * i + 1] = kHex[digest[i] & 0x0f];
  }
  ctx->str[2 * std::size_t{length}] = '\0';
  vesk::platform::SetLastError(0);
  return 1;
} catch (...) {
  return Caught(0);
}

extern "C" void veskcrypto_hwid_free(veskcrypto_hwid* ctx) {
  std::free(ctx);
}
