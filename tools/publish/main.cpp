// veskdbud-publish: the vendor's tool that makes signing keys and turns a source
// tree of database versions into a static server tree (repository.h).
#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "publish_error.h"
#include "repository.h"
#include "signing.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "Usage:\n"
    "  veskdbud-publish keygen --out DIR\n"
    "      Writes an Ed25519 key pair DIR/private.pem and DIR/public.pem and prints the key id.\n"
    "      Install public.pem as /usr/vesk/etc/keys/<key type>/<name>.pem on the appliances.\n"
    "  veskdbud-publish publish --source SRC --out REPO --key PRIVATE.pem --base-url URL\n"
    "                           --db-ver VER [--key-type N] [--max-diff-ratio R]\n"
    "                           [--deprecated ID]... [--link ID=URL]... [--time SECONDS]\n"
    "                           [--valid-days N] [--issued SECONDS]\n"
    "      SRC holds <database id>/<version>/<files...>. Writes REPO/database_info/VER, its\n"
    "      signature REPO/database_info/VER.sig and, per database and version,\n"
    "      REPO/<id>/v<version>/full.pkg and diff.pkg (from the previous version), all signed\n"
    "      for key type N (default 6). A diff package larger than R times the full package\n"
    "      (default 0.5) is not announced. --deprecated marks a database deprecated; --link\n"
    "      announces another full-package link for a database; --time fixes\n"
    "      \"last_fetch_time\" and archive times (default: newest source mtime). The document's\n"
    "      signature is issued at --issued (default: now) and expires N days later (default 7).\n"
    "  veskdbud-publish resign --out REPO --key PRIVATE.pem [--key-type N] [--valid-days N]\n"
    "                          [--issued SECONDS]\n"
    "      Signs every document of REPO/database_info anew, without touching a package.\n"
    "  veskdbud-publish --help\n"
    "Exit status: 0 success, 1 failure, 2 usage error.\n";

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "--name value" and "--name=value" pairs; repeated names keep every value.
std::multimap<std::string, std::string> ParseOptions(const std::vector<std::string>& args) {
  std::multimap<std::string, std::string> options;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a.rfind("--", 0) != 0)
      throw UsageError("unexpected argument: " + a);
    const size_t eq = a.find('=');
    if (eq != std::string::npos) {
      options.emplace(a.substr(0, eq), a.substr(eq + 1));
    } else if (i + 1 < args.size()) {
      options.emplace(a, args[++i]);
    } else {
      throw UsageError(a + " needs a value");
    }
  }
  return options;
}

std::string Single(const std::multimap<std::string, std::string>& options, const std::string& name,
                   bool required, const std::string& fallback = "") {
  const size_t count = options.count(name);
  if (count > 1)
    throw UsageError(name + " given more than once");
  if (count == 0) {
    if (required)
      throw UsageError(name + " is required");
    return fallback;
  }
  return options.find(name)->second;
}

long long Number(const std::string& name, const std::string& text, long long min, long long max) {
  char* end = nullptr;
  errno = 0;
  long long value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value < min || value > max)
    throw UsageError(name + " must be a whole number from " + std::to_string(min) + " to " +
                     std::to_string(max) + ": " + text);
  return value;
}

void CheckKnown(const std::multimap<std::string, std::string>& options,
                const std::vector<std::string>& known) {
  for (const auto& o : options) {
    if (std::find(known.begin(), known.end(), o.first) == known.end())
      throw UsageError("unknown option " + o.first);
  }
}

int Keygen(const std::multimap<std::string, std::string>& options) {
  CheckKnown(options, {"--out"});
  const std::string dir = Single(options, "--out", true);
  boost::filesystem::create_directories(dir);
  vesk::EvpPkeyPtr key = vesk::publish::GenerateSigningKey();
  vesk::publish::WriteKeyPair(key.get(), dir);
  std::cout << "key id " << vesk::publish::KeyIdHex(key.get()) << "\n";
  return 0;
}

struct Validity {
  std::int64_t issued;
  int valid_days;
};

Validity ParseValidity(const std::multimap<std::string, std::string>& options) {
  Validity v{};
  v.valid_days = static_cast<int>(
      Number("--valid-days", Single(options, "--valid-days", false, "7"), 1, 3650));
  v.issued = options.count("--issued") != 0
                 ? Number("--issued", Single(options, "--issued", false), 0, INT64_MAX / 2)
                 : static_cast<std::int64_t>(std::time(nullptr));
  return v;
}

int ResignCommand(const std::multimap<std::string, std::string>& options) {
  CheckKnown(options, {"--out", "--key", "--key-type", "--valid-days", "--issued"});
  vesk::publish::ResignOptions o;
  o.out = Single(options, "--out", true);
  o.key_path = Single(options, "--key", true);
  o.key_type = static_cast<std::uint32_t>(
      Number("--key-type", Single(options, "--key-type", false, "6"), 0, INT32_MAX));
  const Validity validity = ParseValidity(options);
  o.issued = validity.issued;
  o.valid_days = validity.valid_days;
  vesk::publish::Resign(o, std::cout);
  return 0;
}

int PublishCommand(const std::multimap<std::string, std::string>& options) {
  CheckKnown(options,
             {"--source", "--out", "--key", "--base-url", "--db-ver", "--key-type",
              "--max-diff-ratio", "--deprecated", "--link", "--time", "--valid-days", "--issued"});
  vesk::publish::PublishOptions o;
  o.source = Single(options, "--source", true);
  o.out = Single(options, "--out", true);
  o.key_path = Single(options, "--key", true);
  o.base_url = Single(options, "--base-url", true);
  o.db_ver = Single(options, "--db-ver", true);
  o.key_type = static_cast<std::uint32_t>(
      Number("--key-type", Single(options, "--key-type", false, "6"), 0, INT32_MAX));
  const std::string ratio = Single(options, "--max-diff-ratio", false, "0.5");
  char* end = nullptr;
  o.max_diff_ratio = std::strtod(ratio.c_str(), &end);
  if (ratio.empty() || *end != '\0' || !(o.max_diff_ratio >= 0))
    throw UsageError("--max-diff-ratio must be a number of at least 0: " + ratio);
  for (auto [it, last] = options.equal_range("--deprecated"); it != last; ++it)
    o.deprecated.insert(it->second);
  for (auto [it, last] = options.equal_range("--link"); it != last; ++it) {
    const size_t eq = it->second.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == it->second.size())
      throw UsageError("--link takes ID=URL: " + it->second);
    o.links[it->second.substr(0, eq)] = it->second.substr(eq + 1);
  }
  if (options.count("--time") != 0)
    o.time = Number("--time", Single(options, "--time", false), 0, INT32_MAX);
  const Validity validity = ParseValidity(options);
  o.issued = validity.issued;
  o.valid_days = validity.valid_days;
  vesk::publish::Publish(o, std::cout, std::cerr);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  try {
    if (args.empty())
      throw UsageError("no command given");
    const std::string command = args[0];
    const bool help = std::any_of(args.begin(), args.end(),
                                  [](const std::string& a) { return a == "--help" || a == "-h"; });
    if (help || command == "help") {
      std::cout << kUsage;
      return 0;
    }
    const auto options = ParseOptions({args.begin() + 1, args.end()});
    if (command == "keygen")
      return Keygen(options);
    if (command == "publish")
      return PublishCommand(options);
    if (command == "resign")
      return ResignCommand(options);
    throw UsageError("unknown command " + command);
  } catch (const UsageError& e) {
    std::cerr << "veskdbud-publish: " << e.what() << "\n" << kUsage;
    return kExitUsage;
  } catch (const std::exception& e) {
    std::cerr << "veskdbud-publish: " << e.what() << "\n";
    return kExitFailure;
  }
}
