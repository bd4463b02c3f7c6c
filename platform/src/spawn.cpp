#include "vesk_internal/spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

extern char** environ;

namespace vesk {

int SpawnAndWait(const std::vector<std::string>& argv, const SpawnOptions& options, int* status) {
  if (argv.empty())
    return EINVAL;
  SpawnFileActions actions;
  int rc = actions.error();
  if (rc == 0)
    rc = posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (rc == 0 && options.stdout_fd >= 0)
    rc = posix_spawn_file_actions_adddup2(actions.get(), options.stdout_fd, STDOUT_FILENO);
  if (rc == 0 && options.quiet)
    rc = posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  if (rc != 0)
    return rc;

  std::vector<char*> args;
  for (const auto& arg : argv)
    args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  std::vector<char*> env;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (!options.drop_xdelta_options || std::strncmp(*entry, "XDELTA=", 7) != 0)
      env.push_back(*entry);
  }
  env.push_back(nullptr);

  pid_t pid = -1;
  rc = options.search_path
           ? posix_spawnp(&pid, args[0], actions.get(), nullptr, args.data(), env.data())
           : posix_spawn(&pid, args[0], actions.get(), nullptr, args.data(), env.data());
  if (rc != 0)
    return rc;
  while (waitpid(pid, status, 0) < 0) {
    if (errno != EINTR)
      return errno;
  }
  return 0;
}

}  // namespace vesk
