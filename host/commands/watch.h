// pmhost watch: every process that starts, replaces its image, or ends.
#pragma once

#include <cstdint>
#include <optional>

#include "host/options.h"

namespace pmhost {

struct WatchOptions {
  bool full = false;
  std::optional<double> seconds;
  std::optional<std::uint64_t> count;
};

// Returns when it is told to end. Throws Failure.
void Watch(const GlobalOptions& global, const WatchOptions& options);

}  // namespace pmhost
