// veskdbudvcdiff: the update engine's delta decoder. Decodes a standard VCDIFF
// (RFC 3284) delta against a source file with xdelta3, writing the result
// through a temporary file in the output's directory and a rename, so OUTPUT is
// either complete or untouched.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "vesk_internal/spawn.h"
#include "vesk_internal/unique_fd.h"

namespace {

constexpr char kXdelta3[] = "/usr/bin/xdelta3";
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "Usage: veskdbudvcdiff decode SOURCE OUTPUT DELTA\n"
    "Decodes the VCDIFF delta DELTA against SOURCE and writes the result to OUTPUT.\n"
    "Exit status: 0 success, 1 a file is missing or decoding failed, 2 usage error.\n";

int Fail(const std::string& message) {
  std::cerr << "veskdbudvcdiff: " << message << "\n";
  return kExitFailure;
}

// Empty when `path` is a readable regular file, else the reason.
std::string CheckInput(const std::string& path) {
  vesk::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0)
    return std::strerror(errno);
  if (!S_ISREG(st.st_mode))
    return "not a regular file";
  return "";
}

// Runs xdelta3 with stdout into `out_fd`; its exit status, or -1.
int RunXdelta3(const std::string& source, const std::string& delta, int out_fd) {
  // -D: never decompress the source through an external program; -c: to stdout.
  vesk::SpawnOptions options;
  options.stdout_fd = out_fd;
  options.drop_xdelta_options = true;
  int status = 0;
  if (int error =
          vesk::SpawnAndWait({kXdelta3, "-d", "-D", "-c", "-s", source, delta}, options, &status);
      error != 0) {
    errno = error;
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Decode(const std::string& source, const std::string& output, const std::string& delta) {
  if (std::string why = CheckInput(source); !why.empty())
    return Fail("cannot read source file " + source + ": " + why);
  if (std::string why = CheckInput(delta); !why.empty())
    return Fail("cannot read delta file " + delta + ": " + why);
  if (access(kXdelta3, X_OK) != 0)
    return Fail(std::string("cannot run ") + kXdelta3 + ": " + std::strerror(errno));

  std::string temp = output + ".XXXXXX";
  vesk::UniqueFd out(mkostemp(temp.data(), O_CLOEXEC));
  if (!out)
    return Fail("cannot create output next to " + output + ": " + std::strerror(errno));
  const int status = RunXdelta3(source, delta, out.get());
  const mode_t mask = umask(0);
  umask(mask);
  if (status != 0 || fchmod(out.get(), 0666 & ~mask) != 0 || close(out.release()) != 0 ||
      rename(temp.c_str(), output.c_str()) != 0) {
    const std::string reason =
        status != 0 ? "xdelta3 status " + std::to_string(status) : std::strerror(errno);
    unlink(temp.c_str());
    return Fail("decoding " + delta + " against " + source + " into " + output + " failed (" +
                reason + ")");
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::cout << kUsage;
    return 0;
  }
  if (args.size() != 4 || args[0] != "decode") {
    std::cerr << "veskdbudvcdiff: expected: decode SOURCE OUTPUT DELTA\n" << kUsage;
    return kExitUsage;
  }
  return Decode(args[1], args[2], args[3]);
}
