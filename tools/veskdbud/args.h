// Command-line parsing: global options, then a command, its options and
// operands, and for run-locked a command line after "--".
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace vesk::cli {

// What one command accepts.
struct CommandSyntax {
  std::set<std::string> flags;   // options without a value ("--all")
  std::set<std::string> valued;  // options with a value ("--timeout")
  size_t min_operands = 0;
  size_t max_operands = 0;
  bool takes_command_line = false;  // "-- COMMAND..." (run-locked)
};

struct Args {
  bool verbose = false;
  bool help = false;
  bool version = false;
  std::string command;  // "" when none was given
  std::vector<std::string> operands;
  std::set<std::string> flags;
  std::map<std::string, std::string> values;
  std::vector<std::string> command_line;

  bool Has(const std::string& flag) const { return flags.count(flag) != 0; }
  // The operand at `index`, or "" when there are fewer.
  std::string Operand(size_t index) const;
};

// Parses argv[1..]; `syntax_of` gives a command's syntax, or nullptr for an
// unknown command. Throws CliError(kExitUsage) with one line on misuse.
Args ParseArgs(const std::vector<std::string>& argv,
               const CommandSyntax* (*syntax_of)(const std::string& command));

}  // namespace vesk::cli
