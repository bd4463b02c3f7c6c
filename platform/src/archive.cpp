// The C interface of signed package archives over the verification and
// extraction passes; every call catches everything, so no exception crosses it.
#include "vesk/archive.h"

#include <errno.h>
#include <fcntl.h>

#include <cstring>
#include <memory>
#include <string>

#include "archive_extract.h"
#include "archive_status.h"
#include "archive_verify.h"
#include "vesk_internal/unique_fd.h"

using vesk::platform::archive::Fail;
using vesk::platform::archive::Status;
using vesk::platform::archive::VerifiedPackage;

struct veskarchive {
  vesk::UniqueFd target;  // the extraction target, held from init
  std::string target_path;
  std::unique_ptr<VerifiedPackage> package;  // set by a successful open
  Status last;

  int Report(Status s) {
    last = std::move(s);
    return last.ok() ? 1 : 0;
  }
};

namespace {

template <typename F>
int Guarded(veskarchive* h, F&& body) {
  if (h == nullptr)
    return 0;
  try {
    return h->Report(body());
  } catch (const std::exception& e) {
    return h->Report(Fail(VESKARCHIVE_E_INTERNAL, e.what()));
  } catch (...) {
    return h->Report(Fail(VESKARCHIVE_E_INTERNAL, "unknown failure"));
  }
}

}  // namespace

extern "C" veskarchive* veskarchive_init(const char* target_dir) {
  if (target_dir == nullptr || *target_dir == '\0')
    return nullptr;
  try {
    vesk::UniqueFd fd(open(target_dir, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!fd)
      return nullptr;
    auto handle = std::make_unique<veskarchive>();
    handle->target = std::move(fd);
    handle->target_path = target_dir;
    return handle.release();  // owned by the caller until veskarchive_free
  } catch (...) {
    return nullptr;
  }
}

extern "C" int veskarchive_open_with_keytype(veskarchive* handle, const char* package,
                                             int key_type) {
  return Guarded(handle, [&]() -> Status {
    handle->package.reset();
    if (package == nullptr || *package == '\0')
      return Fail(VESKARCHIVE_E_INVALID, "no package path");
    if (key_type < 0)
      return Fail(VESKARCHIVE_E_INVALID, "negative key type");
    auto verified = std::make_unique<VerifiedPackage>();
    Status s = vesk::platform::archive::VerifyPackage(package, key_type, verified.get());
    if (s.ok())
      handle->package = std::move(verified);
    return s;
  });
}

extern "C" int veskarchive_extract_multiple(veskarchive* handle, const char* const* entries,
                                            int flags) {
  return Guarded(handle, [&]() -> Status {
    if (!handle->package)
      return Fail(VESKARCHIVE_E_INVALID, "no verified package is open");
    Status s = vesk::platform::archive::ExtractPackage(*handle->package, handle->target.get(),
                                                       entries, flags);
    if (!s.ok())
      s.detail = handle->target_path + ": " + s.detail;
    return s;
  });
}

extern "C" const char* veskarchive_binding(const veskarchive* handle, size_t* size) {
  if (size != nullptr)
    *size = 0;
  if (handle == nullptr || !handle->package || !handle->package->bound)
    return nullptr;
  if (size != nullptr)
    *size = handle->package->binding.size();
  return handle->package->binding.data();
}

extern "C" int veskarchive_error(const veskarchive* handle) {
  return handle != nullptr ? handle->last.code : VESKARCHIVE_E_INVALID;
}

extern "C" const char* veskarchive_error_detail(const veskarchive* handle) {
  return handle != nullptr ? handle->last.detail.c_str() : "no handle";
}

extern "C" const char* veskarchive_strerror(int code) {
  switch (code) {
    case VESKARCHIVE_OK:
      return "success";
    case VESKARCHIVE_E_INVALID:
      return "invalid argument or call order";
    case VESKARCHIVE_E_OPEN:
      return "the package cannot be opened or read";
    case VESKARCHIVE_E_NOT_REGULAR:
      return "the package is not a regular file";
    case VESKARCHIVE_E_NO_ENVELOPE:
      return "the file is not a signed package";
    case VESKARCHIVE_E_MALFORMED:
      return "the package envelope is malformed";
    case VESKARCHIVE_E_TRUNCATED:
      return "the package is truncated";
    case VESKARCHIVE_E_KEY_TYPE:
      return "the package is signed for another key type";
    case VESKARCHIVE_E_UNKNOWN_KEY:
      return "the package is signed by an unknown key";
    case VESKARCHIVE_E_BAD_SIGNATURE:
      return "the package signature does not match its contents";
    case VESKARCHIVE_E_CHANGED:
      return "the package changed after it was verified";
    case VESKARCHIVE_E_FORMAT:
      return "the package holds no readable tar archive";
    case VESKARCHIVE_E_ABSOLUTE_PATH:
      return "an entry has an absolute path";
    case VESKARCHIVE_E_DOTDOT:
      return "an entry has a '..' component";
    case VESKARCHIVE_E_LINK_OUTSIDE:
      return "a symbolic link may lead outside the target";
    case VESKARCHIVE_E_HARDLINK:
      return "an entry is a hard link";
    case VESKARCHIVE_E_DEVICE:
      return "an entry is a device node";
    case VESKARCHIVE_E_FIFO:
      return "an entry is a FIFO";
    case VESKARCHIVE_E_SPECIAL:
      return "an entry is of an unsupported kind";
    case VESKARCHIVE_E_THROUGH_LINK:
      return "an entry lies below a symbolic link";
    case VESKARCHIVE_E_BAD_NAME:
      return "an entry has an empty or unreadable name";
    case VESKARCHIVE_E_EXISTS:
      return "an entry's path already exists";
    case VESKARCHIVE_E_WRITE:
      return "writing into the target failed";
    case VESKARCHIVE_E_ENTRY_MISSING:
      return "a requested entry is not in the package";
    case VESKARCHIVE_E_INTERNAL:
      return "internal failure";
    default:
      return "unknown error code";
  }
}

extern "C" void veskarchive_free(veskarchive* handle) {
  std::unique_ptr<veskarchive> owned(handle);  // releases descriptors on the way out
}
