// Fuzz harness: IOUtils::ReadJson on a file holding the fuzzed bytes.
//
// ReadJson must give exactly the document that the JSON reader (comments kept)
// makes of the same bytes, and must reject exactly what that reader rejects,
// its own exceptions included, with UpdateError("Fail to decode: <path>") and
// the default code. Any other outcome or exception is a finding.
#include <dataupdate/error.h>
#include <dataupdate/io_utils.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "harness.h"

namespace {

using vesk::dataupdate::IOUtils;
using vesk::dataupdate::UpdateError;
using vesk::fuzz::Fail;

// One file in a private temporary directory, rewritten for every input and
// removed with the directory when the process ends normally.
class InputFile {
 public:
  InputFile() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                          "/veskdbud-fuzz-read_json-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
      Fail("cannot make a temporary directory from " + pattern);
    dir_ = pattern;
    path_ = dir_ + "/input.json";
  }
  ~InputFile() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(dir_, ignored);
  }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  const std::string& path() const { return path_; }

  void Write(const std::string& bytes) const {
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
      Fail("cannot write " + path_);
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
      if (n <= 0) {
        close(fd);
        Fail("short write to " + path_);
      }
      done += static_cast<std::size_t>(n);
    }
    close(fd);
  }

 private:
  std::string dir_;
  std::string path_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const InputFile file;
  const std::string bytes = vesk::fuzz::AsText(data, size);
  file.Write(bytes);

  Json::Value expected;
  const bool parses = vesk::fuzz::ParseJson(bytes, &expected);
  try {
    const Json::Value got = IOUtils().ReadJson(file.path());
    if (!parses)
      Fail("ReadJson accepted a document that the JSON reader rejects");
    if (!(got == expected))
      Fail("ReadJson returned another document than the JSON reader reads from the file");
  } catch (const UpdateError& e) {
    if (e.what() != "Fail to decode: " + file.path() || e.code() != UpdateError::kGeneral)
      Fail(std::string("unexpected UpdateError \"") + e.what() + "\" code " +
           std::to_string(e.code()));
    if (parses)
      Fail("ReadJson rejected a document that the JSON reader accepts");
  } catch (const std::exception& e) {
    Fail(std::string("ReadJson let an exception other than UpdateError out: ") + e.what());
  }
  return 0;
}
