#include "process_manager/non_blocking/netlink_interceptor.h"

#include <sys/prctl.h>

#include <utility>

#include "process_manager/interceptor.h"
#include "process_manager/non_blocking/poll_loop.h"
#include "process_manager/process/tools.h"
#include "process_manager/system_event.h"
#include "qor_common/enum_names.h"
#include "qor_common/restart.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager::non_blocking {
namespace {

using zym::trace::kCall;
using zym::trace::kWarning;

constexpr const char* kThreadName = "vornPrcMonPoll";
constexpr std::uint32_t kAllTypes = non_blocking_type::kNetlink | non_blocking_type::kKprobes |
                                    non_blocking_type::kFullProcessInfo | non_blocking_type::kConsoleInput;

// The bits of a type by name, for the trace.
struct TypeNames {
  std::uint32_t type;
};

void AppendTo(zym::trace::Record& record, const TypeNames& names) {
  constexpr std::pair<std::uint32_t, const char*> kNames[] = {
      {non_blocking_type::kNetlink, "Netlink"},
      {non_blocking_type::kKprobes, "Kprobes"},
      {non_blocking_type::kFullProcessInfo, "FullProcessInfo"},
      {non_blocking_type::kConsoleInput, "ConsoleInput"},
  };
  const char* separator = "";
  for (const auto& [bit, name] : kNames) {
    if ((names.type & bit) == 0) continue;
    record << separator << name;
    separator = "|";
  }
}

}  // namespace

// What one kernel event does to the cache: at most the end of one image and the beginning of another.
struct NetlinkInterceptor::Transition {
  process_cache::EventInfo exit{.skip = true};
  process_cache::EventInfo create{.skip = true};
};

NetlinkInterceptor::NetlinkInterceptor(zym::IServiceLocator* locator,
                                       zym::intrusive_ptr<IEventDispatcher> dispatcher,
                                       zym::intrusive_ptr<SystemEventsFactory> systemEventsFactory)
    : FilterManager(locator, "NetlinkInterceptor"),
      ServiceLocatorProvider(locator),
      m_procfs(zym::RequireInterface<procfs::IParser>(locator)),
      m_eventInfoProvider(zym::RequireInterface<IEventInfoProvider>(locator)),
      m_tracerCategoryFilter(zym::RequireInterface<zym::ITracerCategoryFilter>(locator)),
      m_systemEventsFactory(std::move(systemEventsFactory)),
      m_dispatcher(std::move(dispatcher)),
      m_parser(zym::intrusive_ptr<zym::ITracer>(GetTracer())) {
  const auto onEvent = [this](const zym::intrusive_ptr<ISystemEvent>& event) {
    OnEvent(event->GetType(), event.get());
  };
  m_dispatcher->SetCreateProcessHandler(onEvent);
  m_dispatcher->SetExitProcessHandler(onEvent);
}

NetlinkInterceptor::~NetlinkInterceptor() {
  StopImpl(kAllTypes);
  // A stop that can't leave the kernel's group keeps the thread, which must not outlive what it reads.
  StopPolling();
  m_dispatcher->SetExitProcessHandler({});
  m_dispatcher->SetCreateProcessHandler({});
}

zym::result_t NetlinkInterceptor::Start() {
  const std::scoped_lock lock(m_startLock);
  return StartImpl(m_activeMask);
}

zym::result_t NetlinkInterceptor::Stop() {
  const std::scoped_lock lock(m_startLock);
  return StopImpl(m_activeMask);
}

zym::result_t NetlinkInterceptor::Start(std::uint32_t type) {
  const std::scoped_lock lock(m_startLock);
  m_activeMask |= type;
  return StartImpl(type);
}

zym::result_t NetlinkInterceptor::Stop(std::uint32_t type) {
  const std::scoped_lock lock(m_startLock);
  m_activeMask &= ~type;
  return StopImpl(type);
}

zym::result_t NetlinkInterceptor::StartImpl(std::uint32_t type) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() type: " << TypeNames{type});
  if ((type & non_blocking_type::kFullProcessInfo) != 0) {
    m_fullInformation = true;
    ZYM_REPORT_RESULT(GetTracer(), SetEnvironCapturing(true), "Cannot enable environ capturing");
  }
  if ((type & non_blocking_type::kNetlink) != 0) ZYM_CHECK_RESULT(GetTracer(), StartNetlink());
  if ((type & non_blocking_type::kKprobes) != 0) ZYM_CHECK_RESULT(GetTracer(), StartKprobes());
  return zym::ZYM_OK;
}

zym::result_t NetlinkInterceptor::StopImpl(std::uint32_t type) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() type: " << TypeNames{type});
  if ((type & non_blocking_type::kFullProcessInfo) != 0) {
    m_fullInformation = false;
    ZYM_REPORT_RESULT(GetTracer(), SetEnvironCapturing(false), "Cannot disable environ capturing");
  }
  if ((type & non_blocking_type::kNetlink) != 0) ZYM_CHECK_RESULT(GetTracer(), StopNetLink());
  if ((type & non_blocking_type::kKprobes) != 0) ZYM_CHECK_RESULT(GetTracer(), StopKprobes());
  return zym::ZYM_OK;
}

// --- the proc connector ---

zym::result_t NetlinkInterceptor::StartNetlink() try {
  if (m_socket) {
    ZYM_TRACE(GetTracer(), kCall, __func__ << ": netlink nonblocking interceptor is running already");
    return zym::ZYM_FALSE;
  }
  m_socket = NetlinkSocket::Open(GetTracer());
  ZYM_CHECK_RESULT_AS(GetTracer(), "InitNetlinkConnector()", m_socket ? zym::ZYM_OK : zym::ZYM_E_UNSPECIFIED,
                      "Cannot init netlink connector");
  m_featureMark.emplace(GetServiceLocator(), GetTracer(), ReportFeatures::ProcessMonitoring,
                        ReportFeatureTechs::Netlink);
  m_stopNotifier.emplace();
  // From here on a failure leaves the socket open: a later start finds it running, and a stop closes it.
  ZYM_CHECK_RESULT_AS(GetTracer(), "ConfigureNetlinkConnector(true)", m_socket->Configure(GetTracer(), true));
  ZYM_CHECK_RESULT(GetTracer(), m_pollThread.Create(&NetlinkInterceptor::PollTask, this),
                   "Cannot create poll thread");
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t NetlinkInterceptor::StopNetLink() {
  if (!m_socket) {
    ZYM_TRACE(GetTracer(), kCall, __func__ << ": nonblocking interceptor is stopped already");
    return zym::ZYM_FALSE;
  }
  ZYM_CHECK_RESULT_AS(GetTracer(), "ConfigureNetlinkConnector(false)",
                      m_socket->Configure(GetTracer(), false));
  StopPolling();
  m_socket.reset();
  m_featureMark.reset();
  return zym::ZYM_OK;
}

void NetlinkInterceptor::StopPolling() {
  if (m_stopNotifier) ZYM_REPORT_RESULT(GetTracer(), m_stopNotifier->Notify());
  m_pollThread.Join();
  m_stopNotifier.reset();
}

// --- the poll thread ---

zym::result_t NetlinkInterceptor::PollTask() noexcept {
  ::prctl(PR_SET_NAME, kThreadName);
  zym::result_t result = zym::ZYM_E_UNSPECIFIED;
  try {
    PollLoop loop(GetTracer(), m_stopNotifier->GetDescriptor(), *m_socket,
                  [this](const void* buffer, std::uint64_t size) {
                    static_cast<void>(ProcessNetlink(buffer, size));  // what can't be used is lost
                  });
    result = loop.Run();
  } catch (...) {
    zym::ExceptionInFunctionToResult(GetTracer(), __func__);
  }
  if (ZYM_SUCCEEDED(result)) return result;
  ZYM_TRACE(GetTracer(), kCall, __func__ << ": unexpected poll thread exit, restart");
  ProductRestart(GetTracer());  // traces its result; nobody is left here to act on it
  return zym::ZYM_E_UNSPECIFIED;
}

zym::result_t NetlinkInterceptor::ProcessNetlink(const void* buffer, std::uint64_t size) noexcept try {
  EventRecord record;
  const zym::result_t parsed = m_parser.Parse(static_cast<const Message*>(buffer), size, &record);
  if (parsed == zym::ZYM_FALSE) return zym::ZYM_OK;
  if (parsed != zym::ZYM_OK) return zym::ZYM_E_UNSPECIFIED;
  Transition transition;
  Apply(record, transition);
  DispatchEvents(transition);
  return zym::ZYM_OK;
} catch (...) {
  zym::ExceptionInFunctionToResult(GetTracer(), __func__);
  return zym::ZYM_E_UNSPECIFIED;
}

// The cache is brought up to date here, on the poll thread and so in the kernel's order. What goes through
// the queue afterwards only reads it.
void NetlinkInterceptor::Apply(const EventRecord& record, Transition& transition) {
  auto& [exit, create] = transition;
  const auto pid = static_cast<pid_t>(record.pid);
  process_cache::ProcessInformation pinfo;
  switch (record.type) {
    case EventRecord::kNone:
      return;
    case EventRecord::kFork:
      create.skip = false;
      create.timestamp = record.timestamp;
      ReadProcess(record.pid, false, pinfo);
      pinfo.parentPid = record.first;
      m_eventInfoProvider->OnFork(std::move(pinfo), create);
      return;
    case EventRecord::kExec:
      exit.skip = false;
      create.skip = false;
      exit.timestamp = record.timestamp;
      create.timestamp = record.timestamp;
      ReadProcess(record.pid, m_fullInformation, pinfo);
      m_eventInfoProvider->OnExec(std::move(pinfo), exit, create);
      return;
    case EventRecord::kExit:
      exit.skip = false;
      exit.timestamp = record.timestamp;
      m_eventInfoProvider->OnExit(pid, exit);
      return;
    case EventRecord::kUid:
      m_eventInfoProvider->OnUidChange(pid, record.first, record.second);
      return;
    case EventRecord::kGid:
      m_eventInfoProvider->OnGidChange(pid, record.first, record.second);
      return;
  }
}

// A process that is gone by now is an ordinary case: it is reported with what the event says, and with what
// could still be read.
void NetlinkInterceptor::ReadProcess(PidType pid, bool full, process_cache::ProcessInformation& info) {
  const auto read = full ? &GetFullProcessInfo : &GetProcessInfo;
  if (ZYM_SUCCEEDED(read(GetTracer(), m_procfs.get(), pid, info))) return;
  info.pid = pid;
  info.flags = kNoBackingImage;
  info.state = kTerminated;
}

// Both sides of an exec go into one call: the exit of the old image first, the create of the new one after
// it.
void NetlinkInterceptor::DispatchEvents(Transition& transition) {
  if (transition.exit.skip && transition.create.skip) return;
  const zym::intrusive_ptr<IExecListener> listener = CopyListener();
  zym::types::vector_t<zym::intrusive_ptr<ISystemEvent>> events;
  events.reserve(2);
  constexpr int kNoDescriptor = -1;
  if (!transition.exit.skip)
    events.push_back(m_systemEventsFactory->Create(system_interceptors::event_type::kExitProcess,
                                                   transition.exit, listener, kNoDescriptor));
  if (!transition.create.skip)
    events.push_back(m_systemEventsFactory->Create(system_interceptors::event_type::kCreateProcess,
                                                   transition.create, listener, kNoDescriptor));
  m_dispatcher->Dispatch(events);
}

// --- the exec listener ---

zym::intrusive_ptr<IExecListener> NetlinkInterceptor::CopyListener() {
  const std::scoped_lock lock(m_listenerLock);
  return m_execListener;
}

zym::result_t NetlinkInterceptor::StartKprobes() {
  if (CopyListener()) {
    ZYM_TRACE(GetTracer(), kCall, __func__ << ": kprobes nonblocking interceptor is running already");
    return zym::ZYM_FALSE;
  }
  zym::intrusive_ptr<IExecListenerFactory> factory;
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), factory.Ref()),
                   "Could not get qor::IExecListenerFactory");
  zym::intrusive_ptr<IExecListener> listener;
  if (!ZYM_SUCCEEDED(factory->GetExecListener(listener.Ref()))) {
    ZYM_TRACE(GetTracer(), kWarning, __func__ << ": IExecListener is not available, proceed without");
  } else {
    const std::scoped_lock lock(m_listenerLock);
    m_execListener = std::move(listener);
  }
  if (m_fullInformation) ZYM_CHECK_RESULT(GetTracer(), SetEnvironCapturing(true));
  return zym::ZYM_OK;
}

zym::result_t NetlinkInterceptor::StopKprobes() {
  if (!CopyListener()) {
    ZYM_TRACE(GetTracer(), kCall, __func__ << ": nonblocking kprobes interceptor is stopped already");
    return zym::ZYM_FALSE;
  }
  ZYM_REPORT_RESULT(GetTracer(), SetEnvironCapturing(false), "Cannot disable environ capturing");
  const std::scoped_lock lock(m_listenerLock);
  m_execListener.Reset();
  return zym::ZYM_OK;
}

zym::result_t NetlinkInterceptor::SetEnvironCapturing(bool enable) {
  const zym::intrusive_ptr<IExecListener> listener = CopyListener();
  zym::intrusive_ptr<IExecListenerControl> control;
  if (!listener || !ZYM_SUCCEEDED(zym::QueryInterface(listener, control.Ref()))) {
    ZYM_TRACE(GetTracer(), kCall, __func__ << ": Dynamic ExecListener configuration is not supported");
    return zym::ZYM_FALSE;
  }
  std::uint32_t value = 0;
  if (enable) {
    zym::intrusive_ptr<IStartupDataProvider> startupData;
    ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), startupData.Ref()),
                     "Cannot get qor::IStartupDataProvider interface");
    value = startupData->GetStartupData()->environCapturing;
  }
  return control->SetEnvironCapturing(value);
}

}  // namespace qor::process_manager::non_blocking
