// The rules an archive entry must pass before anything of it is written: its
// name, its kind, and where a symbolic link leads. Pure functions over names;
// whether a path is a symbolic link is answered by the caller.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "archive_status.h"

struct archive_entry;

namespace vesk::platform::archive {

using NameParts = std::vector<std::string>;
// Whether the path (components joined by "/", relative to the target) is a symbolic link.
using IsLinkFn = std::function<bool(const std::string&)>;

// Splits an entry name into components, dropping empty and "." ones
// ("./a//b/" gives {a, b}). Refuses a name beginning with "/"
// (VESKARCHIVE_E_ABSOLUTE_PATH), one with a ".." component (VESKARCHIVE_E_DOTDOT)
// and a missing name (VESKARCHIVE_E_BAD_NAME). An empty result names the target.
Status SplitEntryName(const char* name, NameParts* parts);

// The first `count` components joined by "/" (all when count exceeds the size).
std::string JoinName(const NameParts& parts, size_t count = static_cast<size_t>(-1));

// Regular files, directories and symbolic links pass; hard links, devices,
// FIFOs, sockets and unknown kinds are refused, each with its own code.
Status CheckEntryKind(struct archive_entry* entry);

// A symbolic link named `link` with target text `target` is accepted only when
// the target is relative, never climbs above the target directory when resolved
// component by component from the link's directory, and passes through no other
// symbolic link (which could lead anywhere). VESKARCHIVE_E_LINK_OUTSIDE otherwise.
Status CheckLinkTarget(const NameParts& link, const char* target, const IsLinkFn& is_link);

// VESKARCHIVE_E_THROUGH_LINK when a parent directory of `parts` is a symbolic link.
Status CheckNotBelowLink(const NameParts& parts, const IsLinkFn& is_link);

}  // namespace vesk::platform::archive
