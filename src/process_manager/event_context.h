// What every event of one factory shares.
#pragma once

#include <sys/types.h>

#include "process_manager/host_services.h"
#include "process_manager/process_cache_faces.h"
#include "zym/intrusive_ptr.h"
#include "zym/tracer.h"

namespace qor::process_manager {

// Immutable; the services may be called from any thread.
struct EventContext {
  zym::intrusive_ptr<zym::IServiceLocator> locator;
  zym::intrusive_ptr<zym::ITracer> eventTracer;  // prefixed for events
  zym::intrusive_ptr<zym::ITracerCategoryFilter> categoryFilter;
  zym::intrusive_ptr<IEventInfoProvider> eventInfoProvider;
  zym::intrusive_ptr<IScanStatisticsCollector> scanStatisticsCollector;
  pid_t ownPid;
  pid_t ownParentPid;
  bool startedByWatchdog;
};

}  // namespace qor::process_manager
