// How one file of a database is carried from one version to the next in a diff
// package: created whole, updated by a delta, or deleted.
#pragma once

#include <optional>
#include <string>

namespace vesk::publish {

struct PatchEntry {
  std::string operation;   // "create", "update" or "delete"
  std::string input_name;  // the input's name inside the package; "" for delete
  std::string input_path;  // the file to pack as that input; "" for delete
  std::string note;        // why a cheaper form was not used, for the operator
};

// The change of file `name` (relative to the install directory, no leading "/")
// from `old_path` to `new_path`; an empty path means the file is absent in that
// version. nullopt when both hold the same bytes. Deltas are written in `scratch`,
// a directory of this file's own. Choice for a changed file: an SQLite database
// (both versions) by a verified ".sqlitediff" when it is smaller than the new
// file; otherwise a ".vcdiff" when smaller; otherwise the whole new file
// ("create"). Throws PublishError when xdelta3 cannot run.
std::optional<PatchEntry> DiffFile(const std::string& name, const std::string& old_path,
                                   const std::string& new_path, const std::string& scratch);

// Writes the standard VCDIFF delta from `old_path` to `new_path` with xdelta3
// (no secondary compression, no application header, no external decompression).
void MakeVcdiff(const std::string& old_path, const std::string& new_path, const std::string& out);

}  // namespace vesk::publish
