// What a signed package says it installs (its binding: database, version,
// kind, the version a diff starts from, and the release's manifest), and the
// check of that binding against what the engine asked for. Verified with the
// package's signature and read before any byte of the archive is extracted,
// so a package of another database or an older release cannot be installed
// under the link of the one the engine asked for.
#pragma once

#include <map>
#include <string>

#include "manifest.h"

namespace vesk::dataupdate {

struct PackageBinding {
  std::string database;
  int version = 0;
  bool full = true;
  int from = -1;  // a diff's starting version
  Manifest manifest;
};

struct ExpectedBinding {
  std::string database;
  int version = 0;
  bool full = true;
  int from = -1;
  bool any_version = false;  // a caller that named only a link
};

// The binding of a verified package, from its JSON text; throws UpdateError
// naming `package` when the text is not a well-formed binding.
PackageBinding ParseBinding(const std::string& text, const std::string& package);

// Throws UpdateError "package is for <what it is>, expected <what was asked>"
// unless `actual` is what `expected` asks for.
void CheckBinding(const PackageBinding& actual, const ExpectedBinding& expected);

// Before a diff chain is applied: the installed tree with the chain's changes
// (`changed`: names with a leading "/", true for a write, false for a delete)
// must hold exactly the files of `manifest`, the unchanged ones at their
// listed sizes. Throws UpdateError naming the first file that differs, so a
// chain over a damaged or foreign tree falls back to the full package.
void CheckChainLeadsToManifest(const Manifest& manifest, const std::map<std::string, bool>& changed,
                               const std::string& install_prefix);

// Verifies the signed `package`, checks its binding against `expected` (unless
// that is null), and only then extracts it into the existing `dir`. The
// package's binding is returned (empty when none was asked for).
PackageBinding ExtractBoundPackage(const std::string& package, const std::string& dir,
                                   const ExpectedBinding* expected);

}  // namespace vesk::dataupdate
