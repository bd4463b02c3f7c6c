// The installed version from the text of a status file ("version.json"),
// without building its list of files: what an up-to-date check needs, at a
// cost that stays small for tens of thousands of recorded files.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace vesk::dataupdate {

// The data_version that DatabaseStatus::FromJson gives for the JSON document
// `text`, when `text` lies in the plain subset this library writes and that
// reading accepts: objects whose member names ascend strictly (so none
// repeats), strings without escapes, integers, whitespace; "data_version" a
// string of at most 9 digits (an optional "-" first), "last_fetch_time" an
// integer within 32 bits, "file_statuses" an object of objects that each hold
// a string "sha384_digest". nullopt for anything else, including documents
// the full reading accepts or rejects: then only the full reading can tell.
std::optional<int> ScanStatusVersion(const char* text, size_t size);

// The whole of the regular file at `path` in `text`, whose storage is reused
// from one call to the next; false when it cannot be read so.
bool ReadWholeFile(const std::string& path, std::string* text);

}  // namespace vesk::dataupdate
