// Restarting the whole product.
#pragma once

#include "zym/tracer.h"

namespace qor {

// Starts the product's launcher with "--restart", detached: it outlives this process, which it will end.
// Traced.
zym::result_t ProductRestart(zym::ITracer* tracer);

}  // namespace qor
