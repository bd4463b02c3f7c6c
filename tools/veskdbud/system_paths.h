// Where the tool finds the library's fixed system paths.
//
// The library resolves every fixed path ("/var/lib/data_update",
// "/var/cache/data_update", "/run/data_update", ...) below the directory named
// by VESKDBUD_ROOT when that variable is set, and uses it unchanged otherwise.
// SystemPath applies the same rule; it is the only place in the tool that does,
// and it must stay in step with the library's (docs/operations.md, "Files").
#pragma once

#include <string>

namespace vesk::cli {

// `fixed` (an absolute path such as "/var/lib/data_update") below
// $VESKDBUD_ROOT (trailing slashes ignored; empty or "/" means no root).
std::string SystemPath(const std::string& fixed);

}  // namespace vesk::cli
