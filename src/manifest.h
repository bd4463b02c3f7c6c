// The manifest of a release: every file of it, by name relative to the
// install directory (no leading "/"), with its SHA-384 and size.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace vesk::dataupdate {

struct ManifestEntry {
  std::string sha384;
  std::uint64_t size = 0;
};
using Manifest = std::map<std::string, ManifestEntry>;

}  // namespace vesk::dataupdate
