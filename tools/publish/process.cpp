#include "process.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

extern char** environ;

namespace vesk::publish {
namespace {

struct FileActions {
  posix_spawn_file_actions_t actions;
  FileActions() { posix_spawn_file_actions_init(&actions); }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
};

}  // namespace

int RunProgram(const std::vector<std::string>& argv, const std::string& stdout_path, bool quiet) {
  FileActions fa;
  posix_spawn_file_actions_addopen(&fa.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (!stdout_path.empty())
    posix_spawn_file_actions_addopen(&fa.actions, STDOUT_FILENO, stdout_path.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (quiet)
    posix_spawn_file_actions_addopen(&fa.actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<char*> args;
  for (const auto& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  // xdelta3 takes extra options from XDELTA; the output must not depend on it.
  std::vector<char*> env;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "XDELTA=", 7) != 0)
      env.push_back(*e);
  }
  env.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawnp(&pid, args[0], &fa.actions, nullptr, args.data(), env.data()) != 0)
    return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR)
      return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace vesk::publish
