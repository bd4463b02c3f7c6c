#include "args.h"

#include <cctype>

#include "cli.h"

namespace vesk::cli {
namespace {

[[noreturn]] void Usage(const std::string& command, const std::string& message) {
  const std::string help = command.empty() ? "veskdbud --help" : "veskdbud " + command + " --help";
  throw CliError(kExitUsage,
                 (command.empty() ? "" : command + ": ") + message + " (see '" + help + "')");
}

// "-2" is a number (a force-install version), not an option.
bool IsOption(const std::string& word) {
  return word.size() > 1 && word[0] == '-' && !std::isdigit(static_cast<unsigned char>(word[1]));
}

// The options every command accepts; false when `word` is none of them.
bool GlobalOption(const std::string& word, Args& args) {
  if (word == "--verbose" || word == "-v") {
    args.verbose = true;
  } else if (word == "--help" || word == "-h") {
    args.help = true;
  } else if (word == "--version") {
    args.version = true;
  } else {
    return false;
  }
  return true;
}

}  // namespace

std::string Args::Operand(size_t index) const {
  return index < operands.size() ? operands[index] : std::string();
}

Args ParseArgs(const std::vector<std::string>& argv,
               const CommandSyntax* (*syntax_of)(const std::string& command)) {
  Args args;
  size_t i = 0;
  for (; i < argv.size() && IsOption(argv[i]); ++i) {
    if (!GlobalOption(argv[i], args))
      Usage("", "unknown option '" + argv[i] + "'");
  }
  if (i == argv.size())
    return args;
  args.command = argv[i++];
  if (args.command == "help") {  // "veskdbud help [COMMAND]"
    args.help = true;
    args.command = i < argv.size() ? argv[i] : "";
    return args;
  }
  const CommandSyntax* syntax = syntax_of(args.command);
  if (syntax == nullptr)
    Usage("", "unknown command '" + args.command + "'");

  for (; i < argv.size(); ++i) {
    const std::string& word = argv[i];
    if (word == "--" && syntax->takes_command_line) {
      args.command_line.assign(argv.begin() + static_cast<long>(i) + 1, argv.end());
      break;
    }
    if (!IsOption(word)) {
      args.operands.push_back(word);
      continue;
    }
    if (GlobalOption(word, args))
      continue;
    const size_t eq = word.find('=');
    const std::string name = word.substr(0, eq);
    if (syntax->flags.count(word) != 0) {
      args.flags.insert(word);
    } else if (syntax->valued.count(name) != 0) {
      if (eq != std::string::npos) {
        args.values[name] = word.substr(eq + 1);
      } else if (i + 1 < argv.size()) {
        args.values[name] = argv[++i];
      } else {
        Usage(args.command, name + " needs a value");
      }
    } else {
      Usage(args.command, "unknown option '" + word + "'");
    }
  }
  if (args.help || args.version)
    return args;
  if (args.operands.size() < syntax->min_operands)
    Usage(args.command, "missing argument");
  if (args.operands.size() > syntax->max_operands)
    Usage(args.command, "unexpected argument '" + args.operands[syntax->max_operands] + "'");
  if (syntax->takes_command_line && args.command_line.empty())
    Usage(args.command, "no command given after '--'");
  return args;
}

}  // namespace vesk::cli
