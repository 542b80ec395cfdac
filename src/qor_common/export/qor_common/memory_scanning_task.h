// The running task that scans memory, among the host's.
#pragma once

#include "process_manager/services/task_manager.h"
#include "zym/iobject.h"
#include "zym/tracer.h"

namespace qor::process_memory_manager {

// The first task, in the task manager's order, that is neither stopped nor completed, has settings of a
// memory scan, and scans memory. Needs IQorTaskManager of the locator: a failure to get it or the product's
// tasks is traced and returned. ZYM_E_NOT_FOUND: no such task runs; `task` is left alone then. Any thread.
zym::result_t GetMemoryScanningTask(zym::IServiceLocator* locator, zym::ITracer* tracer,
                                    core::TaskInfo& task);

// The settings of a memory scan; null if the task has others, or none. Valid while the host keeps them.
const core::MemoryScanSettings* GetMemoryScanSettings(const core::TaskInfo& task) noexcept;

}  // namespace qor::process_memory_manager
