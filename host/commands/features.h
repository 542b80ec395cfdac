// pmhost features: which features run, and by which technologies.
#pragma once

#include "host/options.h"

namespace pmhost {

// Turns on what this host can, tells it, and turns it off again. Throws Failure.
void ShowFeatures(const GlobalOptions& global);

}  // namespace pmhost
