// Counts what a benchmark allocates: every benchmark is linked with an operator new that counts.
#pragma once

#include <cstdint>

namespace bench {

// Calls of operator new since the program began, on all threads.
std::uint64_t Allocations();

}  // namespace bench
