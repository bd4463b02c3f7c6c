// veskdbudvcdiff: the update engine's delta decoder. Decodes a standard VCDIFF
// (RFC 3284) delta against a source file with xdelta3, writing the result
// through a temporary file in the output's directory and a rename, so OUTPUT is
// either complete or untouched.
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "vesk_internal/unique_fd.h"

extern char** environ;

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
  if (!fd.valid() || fstat(fd.get(), &st) != 0)
    return std::strerror(errno);
  if (!S_ISREG(st.st_mode))
    return "not a regular file";
  return "";
}

// Runs xdelta3 with stdout into `out_fd`; its exit status, or -1.
int RunXdelta3(const std::string& source, const std::string& delta, int out_fd) {
  // -D: never decompress the source through an external program; -c: to stdout.
  std::vector<std::string> args{kXdelta3, "-d", "-D", "-c", "-s", source, delta};
  std::vector<char*> argv;
  for (auto& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<char*> env;  // XDELTA would add options behind our back
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "XDELTA=", 7) != 0)
      env.push_back(*e);
  }
  env.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, kXdelta3, &actions, nullptr, argv.data(), env.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    errno = rc;
    return -1;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR)
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
  if (!out.valid())
    return Fail("cannot create output next to " + output + ": " + std::strerror(errno));
  const int status = RunXdelta3(source, delta, out.get());
  const mode_t mask = umask(0);
  umask(mask);
  if (status != 0 || fchmod(out.get(), 0666 & ~mask) != 0 || close(out.Release()) != 0 ||
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
