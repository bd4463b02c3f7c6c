// veskdbud: the operator's command-line tool over libveskdbud.
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "args.h"
#include "cli.h"
#include "commands.h"

#ifndef VESKDBUD_VERSION
#error "VESKDBUD_VERSION must be defined by the build"
#endif

namespace vesk::cli {
namespace {

struct Command {
  const char* name;
  const char* synopsis;
  const char* help;
  CommandSyntax syntax;
  int (*run)(const Args&);
};

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands{
      {"init",
       "init",
       "Choose the volume that holds the databases, when none is recorded, and create its\n"
       "directories. Run at boot by veskdbud-init.service.\n",
       {{}, {}, 0, 0, false},
       RunInit},
      {"update",
       "update [ID|--all]",
       "Bring one database, or every scheduled one (the default), to the server's newest\n"
       "version: through diff packages when the server offers the whole chain, otherwise\n"
       "with the full package. --all stops at the first failure.\n",
       {{"--all"}, {}, 0, 1, false},
       RunUpdate},
      {"fix",
       "fix [ID|--all]",
       "Check the digests of the installed files of one database, or of every scheduled one\n"
       "(the default), and reinstall the full package of a database whose files differ.\n",
       {{"--all"}, {}, 0, 1, false},
       RunFix},
      {"force-install",
       "force-install ID [VERSION]",
       "Install one database at VERSION whatever is installed: a version number, 0 for the\n"
       "server's newest (the default), or a negative number counted back from it (-1 is\n"
       "the version before the newest). The next update brings the database forward again\n"
       "unless its automatic update is off.\n",
       {{}, {}, 1, 2, false},
       RunForceInstall},
      {"status",
       "status [ID] [--json|--metrics]",
       "Show each database's installed version, the server's version as last fetched\n"
       "(no download), whether scheduled updates include it, where it is installed, the\n"
       "current volume and the outcome of veskdbud's last update, fix or forced install.\n"
       "--json prints the same as a JSON document; --metrics prints the Prometheus text\n"
       "that the configured \"metrics_file\" receives after each update, fix and forced\n"
       "install.\n",
       {{"--json", "--metrics"}, {}, 0, 1, false},
       RunStatus},
      {"is-updating",
       "is-updating [ID]",
       "Exit 0 when an update, fix or forced install of ID (of any database without ID) is\n"
       "running, 1 when none is.\n",
       {{}, {}, 0, 1, false},
       RunIsUpdating},
      {"volume",
       "volume mount|unmount PATH",
       "Tell veskdbud that the volume at PATH was mounted (adopted when no volume holds the\n"
       "databases) or is about to be unmounted (the databases move to another suitable\n"
       "volume; with none, automatic updates stop).\n",
       {{}, {}, 2, 2, false},
       RunVolume},
      {"run-locked",
       "run-locked ID [--timeout S] -- COMMAND...",
       "Run COMMAND while holding the read lock of database ID, so that no update replaces\n"
       "its files meanwhile; waits up to S seconds (default 60) for the lock. Exits with\n"
       "COMMAND's status (128+N when signal N ended it); 124 when the lock was not free in\n"
       "time, 125 when the database has no lock file yet, 126 or 127 when COMMAND cannot be\n"
       "run or is not found.\n",
       {{}, {"--timeout"}, 1, 1, true},
       RunLocked},
  };
  return commands;
}

const Command* Find(const std::string& name) {
  for (const Command& command : Commands()) {
    if (name == command.name)
      return &command;
  }
  return nullptr;
}

const CommandSyntax* SyntaxOf(const std::string& name) {
  const Command* command = Find(name);
  return command != nullptr ? &command->syntax : nullptr;
}

const char kStatuses[] =
    "Exit status: 0 success; 1 failure; 2 usage error; 3 unknown database; 4 no volume\n"
    "holds the databases; 5 is-updating cannot tell. is-updating: 0 updating, 1 not.\n"
    "run-locked: the command's own status, or 124..127 (see its --help).\n";

void PrintUsage() {
  std::cout << "Usage: veskdbud [--verbose] COMMAND [ARGS]\n\n"
               "Keeps the appliance's databases up to date.\n\nCommands:\n";
  for (const Command& command : Commands())
    std::cout << "  " << command.synopsis << "\n";
  std::cout << "\nOptions:\n"
               "  -v, --verbose   also write the library's log lines to stderr\n"
               "  -h, --help      show help (veskdbud COMMAND --help for one command)\n"
               "      --version   show the version\n\n"
            << kStatuses
            << "Environment: VESKDBUD_ROOT (resolve system paths below a directory),\n"
               "VESKDBUD_LOG_FILE (append log lines to a file). See docs/operations.md.\n";
}

void PrintCommandHelp(const Command& command) {
  std::cout << "Usage: veskdbud [--verbose] " << command.synopsis << "\n\n"
            << command.help << "\n"
            << kStatuses;
}

// Error texts are printed as one line.
std::string OneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r')
      c = ' ';
  }
  return text;
}

int Run(const std::vector<std::string>& argv) {
  const Args args = ParseArgs(argv, SyntaxOf);
  if (args.version) {
    std::cout << "veskdbud " << VESKDBUD_VERSION << std::endl;
    return kExitOk;
  }
  if (args.help || args.command.empty()) {
    const Command* command = Find(args.command);
    if (!args.command.empty() && command == nullptr)
      throw CliError(kExitUsage, "unknown command '" + args.command + "' (see 'veskdbud --help')");
    if (command == nullptr && !args.help)
      throw CliError(kExitUsage, "no command given (see 'veskdbud --help')");
    command != nullptr ? PrintCommandHelp(*command) : PrintUsage();
    return kExitOk;
  }
  // Mirrors the library's log lines; a file the user named keeps them instead.
  if (args.verbose)
    setenv("VESKDBUD_LOG_FILE", "/dev/stderr", 0);
  return Find(args.command)->run(args);
}

}  // namespace
}  // namespace vesk::cli

int main(int argc, char** argv) {
  using namespace vesk::cli;
  try {
    return Run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const CliError& e) {
    std::cerr << "veskdbud: " << OneLine(e.what()) << std::endl;
    return e.status();
  } catch (const std::exception& e) {
    std::cerr << "veskdbud: " << OneLine(e.what()) << std::endl;
    return kExitFailed;
  }
}
