// Resolution of the system's fixed absolute paths.
//
// Every fixed path of the library and of the platform layer ("/run/data_update",
// "/var/lib/data_update", "/usr/vesk/...", "/var/db", ...) goes through RootPath.
// When the environment variable VESKDBUD_ROOT names a directory, the path is
// resolved below it, so tests, the demo and unprivileged users run in a sandbox;
// unset or empty, the path is returned unchanged. Host programs (/usr/bin/wget,
// /bin/mv) and volume mount paths are never passed through here.
//
// Thread-safe; never throws except std::bad_alloc.
#pragma once

#include <string>

namespace vesk::platform {

// The root named by VESKDBUD_ROOT without trailing slashes, or "" when unset.
std::string SandboxRoot();

// `fixed` (an absolute path such as "/run/data_update/x.lock") below the sandbox
// root, or `fixed` itself when there is none.
std::string RootPath(const std::string& fixed);

}  // namespace vesk::platform
