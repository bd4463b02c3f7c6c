#include <cstring>
#include <fstream>
#include <string>

#include "last_error.h"
#include "vlib/sysinfo.h"

namespace {

// PRETTY_NAME of /etc/os-release (quotes removed), or "Linux" when unknown.
std::string PrettyName() {
  std::ifstream in("/etc/os-release");
  std::string line;
  while (std::getline(in, line)) {
    static const std::string kKey = "PRETTY_NAME=";
    if (line.compare(0, kKey.size(), kKey) != 0)
      continue;
    std::string value = line.substr(kKey.size());
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
      value = value.substr(1, value.size() - 2);
    }
    if (!value.empty())
      return value;
  }
  return "Linux";
}

}  // namespace

using vesk::platform::Caught;

extern "C" int VLIBSysinfoUserAgentGet(const char* component, char* buffer, size_t size) try {
  if (component == nullptr || buffer == nullptr || size == 0)
    return -1;
  std::string text =
      std::string("veskdbud/") + VESKDBUD_VERSION + " (" + component + "; " + PrettyName() + ")";
  if (text.size() + 1 > size)
    return -1;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return static_cast<int>(text.size());
} catch (...) {
  return Caught(-1);
}
