// pmhost os: what the module thinks it runs on.
#pragma once

#include "host/options.h"

namespace pmhost {

// Throws Failure.
void ShowOs(const GlobalOptions& global);

}  // namespace pmhost
