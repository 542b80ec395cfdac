// Passive source of process events: the kernel's proc connector, with the host's exec listener beside it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "process_manager/interception/filter.h"
#include "process_manager/interception/filter_manager.h"
#include "process_manager/interception/i_event_dispatcher.h"
#include "process_manager/interception/system_events_factory.h"
#include "process_manager/non_blocking/netlink_parser.h"
#include "process_manager/non_blocking/netlink_socket.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_cache.h"
#include "process_manager/services/exec_listener.h"
#include "qor_common/descriptor_notifier.h"
#include "qor_common/feature_techs_aggregator.h"
#include "qor_common/thread.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager::non_blocking {

// Owns the socket and the poll thread "vornPrcMonPoll", which reads the events, brings the process cache up
// to date in the kernel's order, and hands finished events to the dispatcher. The filters of this table are
// served later, on the dispatcher's thread.
//
// Starting and stopping come from the facade and from the filter table, on any thread. The thread is the only
// reader of the proc connector: when it ends for any reason but a stop, the whole product is restarted, and
// this object doesn't try to recover by itself.
class NetlinkInterceptor : public zym::object::Ifaces<>,
                           public FilterManager<Filter>,
                           public zym::ServiceLocatorProvider,
                           public zym::NonCopyable {
 public:
  NetlinkInterceptor(zym::IServiceLocator* locator, zym::intrusive_ptr<IEventDispatcher> dispatcher,
                     zym::intrusive_ptr<SystemEventsFactory> systemEventsFactory);
  ~NetlinkInterceptor();

  // Called by the filter table, when its first filter became active and when the last one became inactive.
  // What was asked for by type is remembered, so that a start restores what a stop ended. ZYM_OK also when
  // there is nothing to do.
  zym::result_t Start() override;
  zym::result_t Stop() override;

  // Called by the host. `type` is a set of non_blocking_type bits, added to what was asked for, or taken from
  // it. The source starts or stops at once, whether or not a filter is active.
  //
  // Start, the proc connector first:
  //   ZYM_E_UNSPECIFIED       the socket can't be opened, bound (as for NetlinkSocket) or subscribed
  //   the aggregator's code   the feature can't be marked
  //   the error of pthread_create(3), by ErrnoToResult
  //   the locator's code      there is no IExecListenerFactory, which kprobes need; that the factory has no
  //                           listener is no failure
  // Without the proc connector the exec listener is not tried. A failure after the opening of the socket
  // (mark, subscription, thread) leaves it open: a later start does nothing and succeeds, until a stop closes
  // it.
  //
  // Stop: ZYM_E_UNSPECIFIED: the kernel's group can't be left; the source runs on.
  zym::result_t Start(std::uint32_t type);
  zym::result_t Stop(std::uint32_t type);

  // Handles one datagram, aligned as Message is, as the poll thread does. ZYM_OK: it was handled, or is of no
  // interest. ZYM_E_UNSPECIFIED: it was rejected, or handling it failed, which is traced.
  zym::result_t ProcessNetlink(const void* buffer, std::uint64_t size) noexcept;

 private:
  struct Transition;

  zym::result_t StartImpl(std::uint32_t type);
  zym::result_t StopImpl(std::uint32_t type);

  zym::result_t StartNetlink();
  zym::result_t StopNetLink();  // spelled as in the traces
  void StopPolling();

  zym::result_t StartKprobes();
  zym::result_t StopKprobes();
  zym::result_t SetEnvironCapturing(bool enable);
  zym::intrusive_ptr<IExecListener> CopyListener();

  zym::result_t PollTask() noexcept;
  void Apply(const EventRecord& record, Transition& transition);
  void ReadProcess(PidType pid, bool full, process_cache::ProcessInformation& info);
  void DispatchEvents(Transition& transition);

  zym::intrusive_ptr<procfs::IParser> m_procfs;
  zym::intrusive_ptr<IEventInfoProvider> m_eventInfoProvider;
  zym::intrusive_ptr<zym::ITracerCategoryFilter>
      m_tracerCategoryFilter;  // required, although only events ask it
  zym::intrusive_ptr<SystemEventsFactory> m_systemEventsFactory;
  zym::intrusive_ptr<IEventDispatcher> m_dispatcher;
  NetlinkParser m_parser;

  std::mutex m_startLock;          // serialises starts and stops; guards all below but what says otherwise
  std::uint32_t m_activeMask = 0;  // what was asked for
  std::atomic<bool> m_fullInformation{false};  // read by the poll thread without a lock
  Thread m_pollThread;                         // empty when stopped
  std::optional<DescriptorNotifier> m_stopNotifier;
  std::unique_ptr<NetlinkSocket> m_socket;  // null when stopped

  std::mutex m_listenerLock;  // guards the next member only; the poll thread takes it for one copy
  zym::intrusive_ptr<IExecListener> m_execListener;  // null unless kprobes run

  std::optional<ScopedTech> m_featureMark;  // guarded by m_startLock
};

}  // namespace qor::process_manager::non_blocking
