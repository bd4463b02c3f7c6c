// Fuzz harness: the fuzzed bytes as a package file, opened and extracted with
// veskarchive_* into a fresh target as the library does (overwriting), with the
// checks of archive_check.h. A mutation almost never keeps a valid signature, so
// this harness exercises the envelope and signature checks; archive_tar signs
// what it is given and reaches the archive's entries.
#include <cstddef>
#include <cstdint>

#include "archive_check.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace archive = vesk::fuzz::archive;
  static const bool expect_success = archive::ExpectSuccessFromEnvironment();
  archive::Options options;
  options.overwrite = true;
  archive::CheckPackage(vesk::fuzz::AsText(data, size), options, expect_success);
  return 0;
}
