// A process that is held still, by one of several means.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "zym/result.h"

namespace pmhost {

// What kernels below 3.3 have, on which alone the module asks for a suspender.
enum class StopMeans {
  kFreezer,  // freezer.state of a control group of its own, below the one that it is in; cgroups(7), version
             // 1
  kSignals,  // SIGSTOP and SIGCONT, which the process's parent sees, too
};

// Stopped from StopProcess to destruction, which lets the process go on; it puts it back into its control
// group, with whatever it has started meanwhile.
class ProcessStop {
 public:
  virtual ~ProcessStop() = default;
  ProcessStop(const ProcessStop&) = delete;
  ProcessStop& operator=(const ProcessStop&) = delete;

 protected:
  ProcessStop() = default;
};

using StopDeadline = std::chrono::steady_clock::time_point;

// Returns when every thread of the process has stopped. ZYM_E_NOT_SUPPORTED: this machine doesn't have the
// means, or this process not the right to them. ZYM_E_TIMEOUT: it wasn't stopped in time; ZYM_E_NOT_FOUND:
// there is no such process; ZYM_E_ACCESS_DENIED: it may not be stopped. On any failure the process is as it
// was. Throws only std::bad_alloc.
zym::result_t StopProcess(std::uint32_t pid, StopMeans means, StopDeadline deadline,
                          std::unique_ptr<ProcessStop>& stop);

}  // namespace pmhost
