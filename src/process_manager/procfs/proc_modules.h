// The sections of loaded kernel modules, from /sys/module.
#pragma once

#include <cstdint>

#include "process_manager/proc_parser.h"
#include "zym/tracer.h"

namespace qor::procfs {

// Appends the code and data sections of `modules`, as the directory `sysModule` ("/sys/module") has them, to
// `modulesSections`, which is then sorted by address. Each section ends at the latest where the next one
// begins, and the last one at `endVaddr`; those that are empty then are left out. ZYM_E_ACCESS_DENIED: the
// kernel hides the addresses, or a directory is not accessible.
zym::result_t ReadModulesSections(zym::ITracer* tracer, const NativePath& sysModule,
                                  const ModulesList& modules, ModulesSections& modulesSections,
                                  std::uint64_t endVaddr);

}  // namespace qor::procfs
