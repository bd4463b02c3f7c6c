// The publisher's input: SOURCE/<database id>/<version>/<files...>, one
// directory per database and per data version (a decimal number), holding the
// database's files as they are installed.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vesk::publish {

struct VersionTree {
  int version = 0;
  // File name relative to the install directory ("a/b.db") → source path.
  std::map<std::string, std::string> files;
  std::int64_t newest_mtime = 0;  // seconds; 0 for a version without files
};

struct DatabaseSource {
  std::string id;
  std::map<int, VersionTree> versions;  // ascending
};

// Database ids are URL- and path-safe: letters, digits, '.', '_' and '-', not
// beginning with '.'.
bool IsValidDatabaseId(const std::string& id);

// Reads the tree below `root`; names beginning with "." directly below the root
// or below a database are ignored. Throws PublishError for anything else that is
// not a database directory, a version directory, or (inside a version) a regular
// file or directory.
std::vector<DatabaseSource> ScanSource(const std::string& root);

}  // namespace vesk::publish
