// Facade of the event sources. It makes the dispatcher, the event factory and the sources, and passes every
// filter operation on to the sources' tables. It has no event logic of its own.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

#include "process_manager/interception/event_dispatcher.h"
#include "process_manager/interception/system_events_factory.h"
#include "process_manager/interceptor.h"
#include "process_manager/interceptor_settings.h"
#include "process_manager/non_blocking/netlink_interceptor.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// m_mutex is held during every operation on a source, which may wait for handlers and join threads: a handler
// must not call back. Operations for sources that this build doesn't have return ZYM_E_NOT_SUPPORTED.
class Interceptor
    : public zym::object::Ifaces<system_interceptors::interceptor_facade::IInterceptor,
                                 system_interceptors::interceptor_facade::IInterceptor2, IQorInterceptor>,
      public zym::ServiceProvider<zym::IServiceLocator, zym::ITracer>,
      public zym::NonCopyable {
 public:
  using FilterDescriptor = system_interceptors::interceptor_facade::FilterDescriptor;
  using FilterIds = system_interceptors::interceptor_facade::FilterIds;
  using IBlockingEventHandler = system_interceptors::event_processing::IBlockingEventHandler;
  using INonBlockingEventHandler = system_interceptors::event_processing::INonBlockingEventHandler;

  explicit Interceptor(zym::IServiceLocator* locator);
  ~Interceptor();

  zym::result_t GetOfflineLog() override;
  zym::result_t RegisterBlockingFilterAttachHandler(const FilterDescriptor& descriptor, bool enabled,
                                                    std::uint32_t flags, std::uint32_t timeout,
                                                    IBlockingEventHandler* handler,
                                                    std::uint32_t* id) override;
  zym::result_t RegisterNonBlockingFilterAttachHandler(const FilterDescriptor& descriptor, bool enabled,
                                                       std::uint32_t flags, INonBlockingEventHandler* handler,
                                                       std::uint32_t* id) override;
  zym::result_t RegisterFilter(const FilterDescriptor& descriptor, bool enabled, std::uint32_t flags,
                               std::uint32_t* id) override;
  zym::result_t DeleteFilters(FilterIds filterIds) override;
  zym::result_t EnableFilters(FilterIds filterIds) override;
  zym::result_t DisableFilters(FilterIds filterIds) override;
  zym::result_t ReservedOperation() override { return zym::ZYM_OK; }
  zym::result_t AttachHandler(std::uint32_t filterId, INonBlockingEventHandler* handler) override;
  zym::result_t DetachHandler(std::uint32_t filterId) override;
  zym::result_t EnableDisableFilters(FilterIds filtersToEnable, FilterIds filtersToDisable) override;
  zym::result_t GetFilterStatus(std::uint32_t filterId, bool* enabled) override;

  zym::result_t EnableBlockingInterceptor() override { return zym::ZYM_E_NOT_SUPPORTED; }
  zym::result_t DisableBlockingInterceptor() override { return zym::ZYM_E_NOT_SUPPORTED; }
  zym::result_t EnableNonBlockingInterceptor(std::uint32_t type) override;
  zym::result_t DisableNonBlockingInterceptor(std::uint32_t type) override;
  zym::result_t EnableJournalInterceptor() override { return zym::ZYM_E_NOT_SUPPORTED; }
  zym::result_t DisableJournalInterceptor() override { return zym::ZYM_E_NOT_SUPPORTED; }
  zym::result_t EnableConsoleInputInterceptor() override { return zym::ZYM_E_NOT_SUPPORTED; }
  zym::result_t DisableConsoleInputInterceptor() override { return zym::ZYM_E_NOT_SUPPORTED; }

 private:
  // A source's table of filters, under the name that it has in traces.
  struct Table {
    const char* name;
    FilterManager<non_blocking::Filter>& filters;
  };

  zym::result_t RegisterNonBlocking(const char* function, const FilterDescriptor& descriptor, bool enabled,
                                    std::uint32_t flags, INonBlockingEventHandler* handler,
                                    std::uint32_t* id);
  zym::result_t RefuseType(const char* function, std::uint32_t type);
  // In the order in which operations go through them.
  [[nodiscard]] auto Tables() const {
    return std::to_array<Table>({{"m_nonBlockingInterceptor", *m_nonBlockingInterceptor}});
  }
  // Calls `operation` with each table up to the first failure, which it traces as a call of `function` with
  // `arguments`, and returns.
  template <class Operation>
  zym::result_t ForEachTable(const char* function, const char* arguments, Operation operation);

  std::mutex m_mutex;
  // The dispatcher goes last, so that no source can reach a dead queue.
  zym::intrusive_ptr<non_blocking::EventDispatcher> m_eventDispatcher;
  zym::intrusive_ptr<SystemEventsFactory> m_systemEventsFactory;
  zym::intrusive_ptr<non_blocking::NetlinkInterceptor> m_nonBlockingInterceptor;
  zym::intrusive_ptr<IInterceptorSettingsSubscription> m_blockingInterceptorSettingsSubscription;
};

}  // namespace qor::process_manager
