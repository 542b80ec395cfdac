#include "process_manager/interception/event_context.h"

#include <unistd.h>

#include <utility>

#include "qor_common/tools.h"
#include "zym/exception_to_result.h"
#include "zym/service_provider.h"
#include "zym/trace.h"
#include "zym/utf.h"

namespace qor::process_manager {
namespace {

bool IsStartedByWatchdog(zym::IServiceLocator* locator) {
  zym::intrusive_ptr<IStartupDataProvider> startupData;
  ZYM_CHECK_RESULT_OR_THROW(zym::GetInterface(locator, startupData.Ref()),
                            "Cannot get IStartupDataProvider interface");
  return startupData->GetStartupData()->startedByWatchdog != 0;
}

}  // namespace

EventContext::EventContext(zym::IServiceLocator* locator, NativePath watchdogExecutable)
    : m_locator(locator),
      m_eventTracer(zym::trace::WithPrefix(zym::RequireInterface<zym::ITracer>(locator), "Event")),
      m_categoryFilter(zym::RequireInterface<zym::ITracerCategoryFilter>(locator)),
      m_eventInfoProvider(zym::RequireInterface<IEventInfoProvider>(locator)),
      m_scanStatisticsCollector(zym::RequireInterface<IScanStatisticsCollector>(locator)),
      m_ownPid(::getpid()),
      m_ownParentPid(::getppid()),
      m_startedByWatchdog(IsStartedByWatchdog(locator)),
      m_watchdogExecutable(std::move(watchdogExecutable)) {}

bool EventContext::IsCounted(const process_cache::ProcessInformation& info) const {
  if (info.imagePath.empty() || (info.flags & (kSystemProcess | kNoBackingImage)) != 0) return false;
  const auto parentPid = static_cast<pid_t>(info.parentPid);
  if (parentPid == m_ownPid) return false;
  return !m_startedByWatchdog || (parentPid != m_ownParentPid && info.imagePath != WatchdogPath());
}

const zym::types::string16_t& EventContext::WatchdogPath() const {
  std::call_once(m_watchdogResolved, [this, function = __func__] {
    try {
      auto path = zym::Utf8ToUtf16(tools::Realpath(m_watchdogExecutable));
      ZYM_CHECK_OR_THROW(path.has_value(), "Failed to convert " << m_watchdogExecutable);
      m_watchdogPath = std::move(*path);
    } catch (...) {
      zym::ExceptionInFunctionToResult(GetTracer(), function);
    }
  });
  return m_watchdogPath;
}

}  // namespace qor::process_manager
