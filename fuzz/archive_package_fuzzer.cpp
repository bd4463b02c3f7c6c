// Fuzz harness: the fuzzed bytes as a package file, extracted as the library
// does (overwriting) with the checks of archive_check.h. A mutation seldom keeps
// a valid signature: this harness reaches the envelope and signature checks;
// archive_tar signs what it is given and reaches the archive's entries.
#include <cstddef>
#include <cstdint>

#include "archive_check.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace archive = vesk::fuzz::archive;
  static const archive::Expect expect = archive::ExpectFromEnvironment();
  archive::Options options;
  options.overwrite = true;
  archive::CheckPackage(vesk::fuzz::AsText(data, size), options, expect);
  return 0;
}
