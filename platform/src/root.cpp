#include "vesk/root.h"

#include <cstdlib>

namespace vesk::platform {

std::string SandboxRoot() {
  const char* env = std::getenv("VESKDBUD_ROOT");
  if (env == nullptr)
    return {};
  std::string root(env);
  while (root.size() > 1 && root.back() == '/')
    root.pop_back();
  if (root == "/")
    return {};
  return root;
}

std::string RootPath(const std::string& fixed) {
  std::string root = SandboxRoot();
  if (root.empty())
    return fixed;
  if (fixed.empty() || fixed.front() != '/')
    return root + "/" + fixed;
  return root + fixed;
}

}  // namespace vesk::platform
