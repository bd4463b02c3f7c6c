// Fuzz harness: IOUtils::ReadJson on a file holding the fuzzed bytes.
//
// ReadJson must give exactly the document that the JSON reader (comments kept)
// makes of the same bytes, and must reject exactly what that reader rejects,
// its own exceptions included, with UpdateError("Fail to decode: <path>") and
// the default code. Any other outcome or exception is a finding.
#include <dataupdate/error.h>
#include <dataupdate/io_utils.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "harness.h"

namespace {

using vesk::dataupdate::IOUtils;
using vesk::dataupdate::UpdateError;
using vesk::fuzz::Fail;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const vesk::fuzz::ScratchDir dir("read_json");
  static const std::string path = dir / "input.json";
  const std::string bytes = vesk::fuzz::AsText(data, size);
  vesk::fuzz::WriteBytes(path, bytes);

  Json::Value expected;
  const bool parses = vesk::fuzz::ParseJson(bytes, &expected);
  try {
    const Json::Value got = IOUtils().ReadJson(path);
    if (!parses)
      Fail("ReadJson accepted a document that the JSON reader rejects");
    if (!(got == expected))
      Fail("ReadJson returned another document than the JSON reader reads from the file");
  } catch (const UpdateError& e) {
    if (e.what() != "Fail to decode: " + path || e.code() != UpdateError::kGeneral)
      Fail(std::string("unexpected UpdateError \"") + e.what() + "\" code " +
           std::to_string(e.code()));
    if (parses)
      Fail("ReadJson rejected a document that the JSON reader accepts");
  } catch (const std::exception& e) {
    Fail(std::string("ReadJson let an exception other than UpdateError out: ") + e.what());
  }
  return 0;
}
