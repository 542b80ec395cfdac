// A snapshot of all processes.
#pragma once

#include "host/options.h"

namespace pmhost {

struct PsOptions {
  bool tree = false;
};

// Throws Failure.
void ListProcesses(const GlobalOptions& global, const PsOptions& options);

}  // namespace pmhost
