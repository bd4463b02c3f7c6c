// Spawn-and-wait: how the platform layer and the tools run a program and wait
// for it. The program's stdin is /dev/null; stdout and stderr are inherited
// unless redirected below. Never throws except std::bad_alloc.
#pragma once

#include <spawn.h>

#include <string>
#include <vector>

namespace vesk {

// posix_spawn's file actions, destroyed with their holder.
class SpawnFileActions {
 public:
  SpawnFileActions() : error_(posix_spawn_file_actions_init(&actions_)) {}
  ~SpawnFileActions() {
    if (error_ == 0)
      posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnFileActions(const SpawnFileActions&) = delete;
  SpawnFileActions& operator=(const SpawnFileActions&) = delete;
  int error() const { return error_; }  // of the initialisation; 0 when usable
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
  int error_;
};

struct SpawnOptions {
  bool search_path = false;  // argv[0] is looked up in PATH
  int stdout_fd = -1;        // the program's stdout when >= 0
  bool quiet = false;        // stderr to /dev/null
  // XDELTA would give xdelta3 options behind the caller's back.
  bool drop_xdelta_options = false;
};

// Runs `argv` (argv[0] is the program) and waits for it, retrying on EINTR.
// Returns 0 with the wait status in *status, or the errno value that kept the
// program from running or from being waited for.
int SpawnAndWait(const std::vector<std::string>& argv, const SpawnOptions& options, int* status);

}  // namespace vesk
