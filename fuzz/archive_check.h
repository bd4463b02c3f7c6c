// Shared by the signed-archive harnesses (archive_package, archive_tar) and by
// the program that makes their seed inputs. A package is opened and extracted
// with veskarchive_* into a target three directories below a sandbox made once
// per process (VESKDBUD_ROOT trusts the fuzzing key), beside a directory that
// stands for "outside". Invariants of each run:
//   - the result agrees with the error code, one a package in this sandbox can
//     get (never E_OPEN, E_NOT_REGULAR, E_CHANGED or E_INTERNAL);
//   - nothing outside the target changed (names, kinds, modes, times, contents,
//     link texts), nor the working directory; no descriptor leaked;
//   - a refusal promised before writing left the target as it was;
//   - a success left only files, directories and links, every new link relative
//     and inside the target, and, without overwriting, every file and link that
//     was there as it was; a name asked for that the archive lacks never succeeds.
// Anything else ends the process (vesk::fuzz::Fail).
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
  bool overwrite = false;       // VESKARCHIVE_EXTRACT_OVERWRITE
  bool prefilled = false;       // the target is prefilled as above
  bool select_first = false;    // extract only the first entry's name
  bool select_missing = false;  // ask for "not-in-the-archive" too
};

// The options a tar harness input's first byte stands for (bits 0 to 3).
Options OptionsFromByte(std::uint8_t byte);
std::uint8_t ByteFromOptions(const Options& options);

// What the replay of a seed directory demands besides the invariants: the valid
// seeds must extract (VESKDBUD_FUZZ_EXPECT_SUCCESS set), the refused ones must
// fail (VESKDBUD_FUZZ_EXPECT_REFUSAL set).
enum class Expect { kAny, kSuccess, kRefusal };
Expect ExpectFromEnvironment();

// Runs the package file holding `package` through the checks above.
void CheckPackage(const std::string& package, const Options& options, Expect expect);

// Signs `archive` (tar bytes, maybe compressed) with the fuzzing key for kKeyType
// with the publisher's signing code, then CheckPackage.
void CheckSignedArchive(const std::string& archive, const Options& options, Expect expect);

}  // namespace vesk::fuzz::archive
