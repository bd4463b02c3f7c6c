// Fuzz harness: the fuzzed bytes as an archive (tar, maybe gzip, xz or zstd
// compressed) signed with the fuzzing key, so that every input reaches the
// checking and extraction passes: hostile names, links, devices, damaged headers.
// Input: one byte of options (archive_check.h: bit 0 overwrite, bit 1 a
// prefilled target, bit 2 extract only the first entry's name, bit 3 ask for a
// name the archive lacks), then the archive.
#include <cstddef>
#include <cstdint>
#include <string>

#include "archive_check.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace archive = vesk::fuzz::archive;
  static const archive::Expect expect = archive::ExpectFromEnvironment();
  if (size == 0)
    return 0;
  const std::string archive_bytes = vesk::fuzz::AsText(data + 1, size - 1);
  archive::CheckSignedArchive(archive_bytes, archive::OptionsFromByte(data[0]), expect);
  return 0;
}
