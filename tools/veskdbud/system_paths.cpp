#include "system_paths.h"

#include <cstdlib>

namespace vesk::cli {

std::string SystemPath(const std::string& fixed) {
  const char* env = std::getenv("VESKDBUD_ROOT");
  std::string root = env != nullptr ? env : "";
  while (root.size() > 1 && root.back() == '/')
    root.pop_back();
  if (root.empty() || root == "/")
    return fixed;
  return fixed.empty() || fixed.front() != '/' ? root + "/" + fixed : root + fixed;
}

}  // namespace vesk::cli
