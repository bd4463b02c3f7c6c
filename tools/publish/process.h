// Runs the external programs the publisher relies on (xdelta3, sqldiff).
#pragma once

#include <string>
#include <vector>

namespace vesk::publish {

// Runs `argv` (argv[0] searched in PATH) with stdin from /dev/null, stdout into
// `stdout_path` when it is not empty, and stderr discarded when `quiet`. Returns
// the exit status, or -1 when the program could not run or was killed.
int RunProgram(const std::vector<std::string>& argv, const std::string& stdout_path = "",
               bool quiet = false);

}  // namespace vesk::publish
