#include "qor_common/memory_scanning_task.h"

#include <algorithm>

#include "qor_common/enum_names.h"
#include "zym/exception_to_result.h"
#include "zym/service_provider.h"
#include "zym/trace.h"

namespace qor::process_memory_manager {
namespace {

bool IsRunningMemoryScan(zym::ITracer* tracer, const core::TaskInfo& task) {
  if (task.state == TaskState::Stopped || task.state == TaskState::Completed) return false;
  if (task.settings.typeId != core::kMemoryScanSettingsId) return false;
  const auto* const settings = GetMemoryScanSettings(task);
  if (settings == nullptr) {
    ZYM_TRACE(tracer, zym::trace::kFailure, "Cannot get settings for '" << task.name << "' task");
    return false;
  }
  return settings->scanMemory;
}

}  // namespace

const core::MemoryScanSettings* GetMemoryScanSettings(const core::TaskInfo& task) noexcept {
  return task.settings.typeId == core::kMemoryScanSettingsId
             ? static_cast<const core::MemoryScanSettings*>(task.settings.value)
             : nullptr;
}

zym::result_t GetMemoryScanningTask(zym::IServiceLocator* locator, zym::ITracer* tracer,
                                    core::TaskInfo& task) try {
  zym::intrusive_ptr<IQorTaskManager> manager;
  ZYM_CHECK_RESULT_AS(tracer, "zym::GetInterface(sl, tm.Ref())", zym::GetInterface(locator, manager.Ref()),
                      "Cannot get IQorTaskManager interface");
  zym::types::vector_t<core::TaskInfo> tasks;
  ZYM_CHECK_RESULT_AS(tracer, "tm->GetTaskList(taskList, UserCred::GetProductUserCred())",
                      manager->GetTaskList(tasks, UserCred::GetProductUserCred()), "Cannot get tasks list");
  const auto found = std::ranges::find_if(
      tasks, [tracer](const core::TaskInfo& candidate) { return IsRunningMemoryScan(tracer, candidate); });
  if (found == tasks.end()) {
    ZYM_TRACE(tracer, zym::trace::kCall, __func__ << ": Cannot find any running memory scanning task");
    return zym::ZYM_E_NOT_FOUND;
  }
  task = *found;
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, __func__);
}

}  // namespace qor::process_memory_manager
