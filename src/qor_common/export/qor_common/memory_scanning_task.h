// The running task that scans memory, among the host's.
#pragma once

#include "process_manager/host_services.h"
#include "zym/iobject.h"
#include "zym/tracer.h"

namespace qor::process_memory_manager {

// The first task that runs, has settings of a memory scan, and scans memory. ZYM_E_NOT_FOUND: there is none.
// Needs IQorTaskManager of the locator.
zym::result_t GetMemoryScanningTask(zym::IServiceLocator* sl, zym::ITracer* tracer, core::TaskInfo& task);

}  // namespace qor::process_memory_manager
