// The installed version from the text of a status file ("version.json"),
// without building its list of files: what an up-to-date check needs, at a
// cost that stays small for tens of thousands of recorded files.
#pragma once

#include <sys/stat.h>

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

// ScanStatusVersion of the rest of the file `fd` when it holds the members
// IOUtils::WriteJson gives a DatabaseStatus with at least one file, in that
// order, with any whitespace between tokens (so the writer's indentation does
// not matter), read through a 64 KiB buffer; nullopt for anything else (or a
// read error), which the whole-text scan may still read.
std::optional<int> ScanWrittenStatus(int fd);

// The whole of the regular file at `path` in `text`, and the file's fstat
// before the reading in `identity`; false when it cannot be read so.
bool ReadWholeFile(const std::string& path, std::string* text, struct stat* identity);

}  // namespace vesk::dataupdate
