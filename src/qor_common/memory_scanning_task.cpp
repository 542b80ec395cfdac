#include "qor_common/memory_scanning_task.h"

#include <algorithm>

#include "qor_common/enum_names.h"
#include "zym/service_provider.h"
#include "zym/trace.h"

namespace qor::process_memory_manager {
namespace {

bool IsRunningMemoryScan(const core::TaskInfo& task) {
  if (task.state == TaskState::Stopped || task.state == TaskState::Completed) return false;
  if (task.settings.typeId != core::kMemoryScanSettingsId || task.settings.value == nullptr) return false;
  return static_cast<const core::MemoryScanSettings*>(task.settings.value)->scanMemory;
}

}  // namespace

zym::result_t GetMemoryScanningTask(zym::IServiceLocator* sl, zym::ITracer* tracer, core::TaskInfo& task) {
  zym::intrusive_ptr<IQorTaskManager> tm;
  ZYM_CHECK_RESULT(tracer, zym::GetInterface(sl, tm.Ref()), "Cannot get IQorTaskManager interface");
  zym::types::vector_t<core::TaskInfo> taskList;
  ZYM_CHECK_RESULT(tracer, tm->GetTaskList(taskList, UserCred::GetProductUserCred()),
                   "Cannot get tasks list");
  const auto found = std::ranges::find_if(taskList, IsRunningMemoryScan);
  if (found == taskList.end()) {
    ZYM_TRACE(tracer, zym::trace::kCall, "Cannot find any running memory scanning task");
    return zym::ZYM_E_NOT_FOUND;
  }
  task = *found;
  return zym::ZYM_OK;
}

}  // namespace qor::process_memory_manager
