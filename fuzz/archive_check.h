// Shared by the signed-archive harnesses (archive_package, archive_tar) and by
// the program that makes their seed inputs.
//
// A package is opened with veskarchive_open_with_keytype and extracted with
// veskarchive_extract_multiple into a target directory of a sandbox made once
// per process: VESKDBUD_ROOT trusts the fixed fuzzing key for kKeyType, and the
// target lies three directories below the sandbox, beside a directory that
// stands for "outside" (a prefilled target links to it). Each run must end in
// success or in a 0 result with an error code that a package in this sandbox can
// get (never E_OPEN, E_NOT_REGULAR, E_CHANGED or E_INTERNAL), and afterwards:
//   - nothing outside the target has changed (names, kinds, modes, times,
//     contents, link texts), the working directory is the one before, and no
//     descriptor was left open;
//   - an archive holding anything that must be refused (an absolute or ".."
//     name, a hard link, a device, a FIFO, another kind, a link that is
//     absolute, climbs out or passes through a link, an entry below a link of
//     the archive) fails before anything is written: with a refusal code (or
//     the damage of a later header, or an entry already in the target), the
//     target left as it was; so does every refusal the interface promises
//     before writing, whatever the archive;
//   - a success means the archive held nothing to refuse and, without
//     overwriting, nothing of it was in the way; the target then holds exactly
//     what the selected entries make of it, applied in order over what it held
//     before: the same names, kinds, file contents and link texts.
// Any other outcome ends the process (vesk::fuzz::Fail); the target is emptied
// before each run.
#pragma once

#include <cstdint>
#include <string>

#include "vesk_internal/ossl_ptr.h"

namespace vesk::fuzz::archive {

// The key type packages are signed for and opened with (the library's own).
inline constexpr int kKeyType = 6;

// The fuzzing key: an Ed25519 key made from a fixed seed, so the committed seed
// packages verify in every build.
EvpPkeyPtr SigningKey();

// How a run extracts. A prefilled target holds, before extraction:
//   d/ (directory), d/keep (file "kept"), f (file "old"),
//   out -> <absolute path of the directory outside the target>, in -> d.
struct Options {
  bool overwrite = false;     // VESKARCHIVE_EXTRACT_OVERWRITE
  bool prefilled = false;     // the target is prefilled as above
  bool select_first = false;  // extract only the first entry's name, not everything
  // Ask for "not-in-the-archive" too (alone when select_first is off), which
  // fails the extraction unless an entry lies there.
  bool select_missing = false;
};

// The options a tar harness input's first byte stands for (bits 0 to 3).
Options OptionsFromByte(std::uint8_t byte);
std::uint8_t ByteFromOptions(const Options& options);

// Runs the package file holding `package` through the checks above. With
// `expect_success` anything but a successful extraction is a finding too.
void CheckPackage(const std::string& package, const Options& options, bool expect_success);

// Signs `archive` (tar bytes, maybe compressed) with the fuzzing key for kKeyType
// with the publisher's signing code, then CheckPackage.
void CheckSignedArchive(const std::string& archive, const Options& options, bool expect_success);

// True when VESKDBUD_FUZZ_EXPECT_SUCCESS is set to a non-empty value: the replay
// test over the valid seed inputs sets it, so that every one of them must extract.
bool ExpectSuccessFromEnvironment();

}  // namespace vesk::fuzz::archive
