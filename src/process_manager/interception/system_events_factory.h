// Factory of events from the records of the process cache.
#pragma once

#include <memory>

#include "process_manager/interception/event.h"
#include "process_manager/interception/event_context.h"
#include "process_manager/process_cache.h"
#include "process_manager/services/exec_listener.h"
#include "process_manager/services/feature_lookup.h"
#include "process_manager/services/scan_statistics.h"
#include "process_manager/services/startup_data.h"
#include "process_manager/system_event.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// Any thread. Required of the locator: zym::ITracer, zym::ITracerCategoryFilter, IEventInfoProvider,
// IScanStatisticsCollector, IStartupDataProvider. Asked for at each event of a process in another mount
// namespace, and optional: IFeatureLookup.
class SystemEventsFactory : public zym::object::Ifaces<>,
                            public zym::ServiceLocatorProvider,
                            public zym::TracerProvider,
                            public zym::NonCopyable {
 public:
  explicit SystemEventsFactory(zym::IServiceLocator* locator,
                               NativePath watchdogExecutable = kWatchdogExecutable);

  // Takes the contents of `info`. `type` is create_process or exit_process; `fd` is the image, which the
  // event duplicates, or -1; `listener` may be null.
  zym::intrusive_ptr<ISystemEvent> Create(std::uint32_t type, process_cache::EventInfo& info,
                                          const zym::intrusive_ptr<IExecListener>& listener, int fd);

 private:
  void DuplicateImage(int fd, ImageDescriptors& descriptors);
  bool MayOpenInForeignMountNamespace(const process_cache::ProcessInformation& info);
  void OpenImage(const process_cache::ProcessInformation& info, ImageDescriptors& descriptors);

  std::shared_ptr<const EventContext> m_context;
};

}  // namespace qor::process_manager
