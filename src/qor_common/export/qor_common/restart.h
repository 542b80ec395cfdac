// The last resort of a component that can't go on.
#pragma once

#include "zym/result.h"
#include "zym/tracer.h"

namespace qor {

// Starts the product's launcher with "--restart", detached from this process, so that the restart survives
// the end of the daemon that asked for it. Any thread; returns when the launcher is on its own. Lets no
// exception out. A failure is traced and is that of SecureDaemonSpawn. `tracer` may be null.
zym::result_t ProductRestart(zym::ITracer* tracer);

}  // namespace qor
