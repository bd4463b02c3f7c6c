// Extraction of a verified package: a checking pass over every entry header,
// then a writing pass, both reading the verified descriptor again and hashing
// what they read, so a package changed after verification is noticed.
#pragma once

#include "archive_status.h"
#include "archive_verify.h"

namespace vesk::platform::archive {

// Extracts the entries selected by the NULL-terminated `entries` (NULL: all) of
// `package` into the directory `target_fd`, with `flags` of vesk/archive.h.
Status ExtractPackage(const VerifiedPackage& package, int target_fd, const char* const* entries,
                      int flags);

}  // namespace vesk::platform::archive
