// The library's name for the one descriptor holder of the platform layer.
#pragma once

#include "vesk_internal/unique_fd.h"

namespace vesk::dataupdate {

using vesk::UniqueFd;

}  // namespace vesk::dataupdate
