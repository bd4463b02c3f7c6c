// Where the tool finds the library's fixed system paths.
//
// The library resolves every fixed path ("/var/lib/data_update",
// "/var/cache/data_update", "/run/data_update", ...) below the directory named
// by VESKDBUD_ROOT when that variable is set, and uses it unchanged otherwise.
// SystemPath is the platform layer's own resolver, so the tool and the library
// cannot disagree (docs/operations.md, "Files").
#pragma once

#include <string>

namespace vesk::cli {

// `fixed` (an absolute path such as "/var/lib/data_update") below
// $VESKDBUD_ROOT (trailing slashes ignored; empty or "/" means no root).
std::string SystemPath(const std::string& fixed);

}  // namespace vesk::cli
