// The code that is loaded in a process.
#pragma once

#include <cstdint>

#include "host/options.h"

namespace pmhost {

void ShowModules(const GlobalOptions& global, std::uint32_t pid);

}  // namespace pmhost
