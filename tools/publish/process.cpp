#include "process.h"

#include <fcntl.h>
#include <sys/wait.h>

#include "vesk_internal/spawn.h"
#include "vesk_internal/unique_fd.h"

namespace vesk::publish {

int RunProgram(const std::vector<std::string>& argv, const std::string& stdout_path, bool quiet) {
  UniqueFd out;
  if (!stdout_path.empty()) {
    out.reset(open(stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!out)
      return -1;
  }
  // The publisher's output must not depend on the caller's XDELTA options.
  SpawnOptions options;
  options.search_path = true;
  options.stdout_fd = out.get();
  options.quiet = quiet;
  options.drop_xdelta_options = true;
  int status = 0;
  if (SpawnAndWait(argv, options, &status) != 0)
    return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace vesk::publish
