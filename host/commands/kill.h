// The end of a process.
#pragma once

#include <cstdint>
#include <optional>

#include "host/options.h"

namespace pmhost {

struct KillOptions {
  std::uint32_t pid = 0;
  std::optional<std::uint32_t> wait;  // milliseconds; absent: asks, and doesn't wait
};

// Throws Failure.
void KillProcess(const GlobalOptions& global, const KillOptions& options);

}  // namespace pmhost
