// The tool's commands. Each returns its exit status and reports failures by
// throwing CliError or letting the library's exceptions through to main.
#pragma once

#include "args.h"

namespace vesk::cli {

int RunInit(const Args& args);
int RunUpdate(const Args& args);
int RunFix(const Args& args);
int RunForceInstall(const Args& args);
int RunStatus(const Args& args);
int RunIsUpdating(const Args& args);
int RunVolume(const Args& args);
int RunLocked(const Args& args);

// The ID operand, or "" for every database ("--all" or no operand); both
// together are a usage error.
std::string OneOrAll(const Args& args);

}  // namespace vesk::cli
