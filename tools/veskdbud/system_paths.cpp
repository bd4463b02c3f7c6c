#include "system_paths.h"

#include "vesk/root.h"

namespace vesk::cli {

std::string SystemPath(const std::string& fixed) {
  return vesk::platform::RootPath(fixed);
}

}  // namespace vesk::cli
