// The manifest of an installed release: every file of the install directory
// with its SHA-384 digest and size. It is kept beside the status as
// "/var/lib/data_update/<id>/manifest" and records the data version it
// belongs to, so that a manifest left from another release than the status
// names (a run killed between the two writes) reads as missing.
//
// It is a text of lines, read in one pass with no document built, since every
// up-to-date `update` reads it whole:
//   "veskdbud-manifest 1" / "data_version <N>" / "files <count>", then one line
//   "<size> <sha384> <name>" per file, names sorted, with "\\" for a backslash
//   and "\n" for a line feed in a name.
//
// ReadStoredManifest and the checks never throw for what they find on disk;
// WriteStoredManifest and RemoveStoredManifest throw UpdateError.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "dataupdate/records.h"

namespace vesk::dataupdate {

struct ManifestEntry {
  std::string sha384;
  std::uint64_t size = 0;
};
// Key: the file's name relative to the install directory, no leading "/".
using Manifest = std::map<std::string, ManifestEntry>;

std::string ManifestPath(const std::string& id);

// The stored manifest of `id` when it exists, reads whole and belongs to
// `data_version`; nullopt otherwise.
std::optional<Manifest> ReadStoredManifest(const std::string& id, int data_version);

// Written durably (new file, fsync, rename, fsync of the directory).
void WriteStoredManifest(const std::string& id, int data_version, const Manifest& manifest);

// Removed durably before the installed files change, so that a run killed
// before the new one is written leaves no manifest: the next run reinstalls.
void RemoveStoredManifest(const std::string& id);

// The cheap check: every listed file exists below `install_prefix` as a
// regular file of the listed size. Reads no file's content. Logs the first
// file that fails.
bool ManifestHolds(const Manifest& manifest, const std::string& install_prefix);

// ManifestHolds(*ReadStoredManifest(id, data_version), install_prefix), false
// when there is no such manifest, at a fraction of the cost: each file is
// looked at as its line is read.
bool StoredManifestHolds(const std::string& id, int data_version,
                         const std::string& install_prefix);

// The full check: no listed file missing or changed, no file that the
// manifest does not list. Files in `verified` (their digest already checked
// against the same value) are not read again. Logs every file that fails.
bool ManifestMatchesTree(const Manifest& manifest, const std::string& install_prefix,
                         const std::set<std::string>& verified);

// A manifest from the digests of a status: the size of each file is taken
// from the installed file.
Manifest ManifestFromStatuses(const std::map<std::string, FileStatus>& statuses,
                              const std::string& install_prefix);

}  // namespace vesk::dataupdate
