// All that is known of one process.
#pragma once

#include <cstdint>
#include <optional>

#include "host/options.h"

namespace pmhost {

// One of the two is there.
struct ShowOptions {
  std::optional<std::uint32_t> pid;
  std::optional<std::uint64_t> uniquePid;
};

// Throws Failure.
void ShowProcess(const GlobalOptions& global, const ShowOptions& options);

}  // namespace pmhost
