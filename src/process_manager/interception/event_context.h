// Services and facts that all events of one factory share.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <string>

#include "process_manager/process_cache.h"
#include "process_manager/services/scan_statistics.h"
#include "process_manager/services/startup_data.h"
#include "process_manager/types.h"
#include "zym/intrusive_ptr.h"
#include "zym/tracer.h"

namespace qor::process_manager {

// Where the product's watchdog is installed.
inline constexpr const char* kWatchdogExecutable = "/opt/quelmarin/vorn/libexec/wdserver";

// Events complete themselves with these. Any thread.
class EventContext : zym::NonCopyable {
 public:
  // Required of the locator: zym::ITracer, zym::ITracerCategoryFilter, IEventInfoProvider,
  // IScanStatisticsCollector, IStartupDataProvider. Throws when one is missing.
  explicit EventContext(zym::IServiceLocator* locator, NativePath watchdogExecutable = kWatchdogExecutable);

  [[nodiscard]] zym::IServiceLocator* GetLocator() const noexcept { return m_locator.get(); }
  [[nodiscard]] zym::ITracer* GetTracer() const noexcept { return m_eventTracer.get(); }
  [[nodiscard]] zym::ITracerCategoryFilter* GetCategoryFilter() const noexcept {
    return m_categoryFilter.get();
  }
  [[nodiscard]] IEventInfoProvider* GetEventInfoProvider() const noexcept {
    return m_eventInfoProvider.get();
  }

  // Whether the image belongs into the statistics of scans: it is neither this process's own work nor, when a
  // watchdog started this process, the watchdog's.
  [[nodiscard]] bool IsCounted(const process_cache::ProcessInformation& info) const;
  [[nodiscard]] IScanStatisticsCollector* GetScanStatisticsCollector() const noexcept {
    return m_scanStatisticsCollector.get();
  }

 private:
  const zym::types::string16_t& WatchdogPath() const;

  zym::intrusive_ptr<zym::IServiceLocator> m_locator;
  zym::intrusive_ptr<zym::ITracer> m_eventTracer;  // prefixed for events
  zym::intrusive_ptr<zym::ITracerCategoryFilter> m_categoryFilter;
  zym::intrusive_ptr<IEventInfoProvider> m_eventInfoProvider;
  zym::intrusive_ptr<IScanStatisticsCollector> m_scanStatisticsCollector;
  const pid_t m_ownPid;
  const pid_t m_ownParentPid;
  const bool m_startedByWatchdog;

  const NativePath m_watchdogExecutable;
  mutable std::once_flag m_watchdogResolved;      // guards the next member
  mutable zym::types::string16_t m_watchdogPath;  // empty when it can't be resolved
};

}  // namespace qor::process_manager
