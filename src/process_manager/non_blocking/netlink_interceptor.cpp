#include "process_manager/non_blocking/netlink_interceptor.h"

#include <poll.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "process_manager/interceptor_facade.h"
#include "process_manager/system_event.h"
#include "process_manager/tools.h"
#include "qor_common/enum_names.h"
#include "qor_common/restart.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager::non_blocking {
namespace {

using zym::trace::kCall;
using zym::trace::kFailure;
using zym::trace::kWarning;

constexpr const char* kThreadName = "vornPrcMonPoll";
constexpr std::size_t kMaxMessageSize = 4096;
constexpr std::uint32_t kAllTypes = 15;
constexpr short kBroken = POLLERR | POLLHUP | POLLNVAL;

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

// --- the proc connector
// -------------------------------------------------------------------------------------

zym::result_t NetlinkInterceptor::StartNetlink() try {
  if (m_socket) {
    ZYM_TRACE(GetTracer(), kCall, "netlink nonblocking interceptor is running already");
    return zym::ZYM_FALSE;
  }
  ZYM_CHECK_RESULT(GetTracer(), InitNetlinkConnector(), "Cannot init netlink connector");
  m_featureMark.emplace(GetServiceLocator(), GetTracer(), ReportFeatures::ProcessMonitoring,
                        ReportFeatureTechs::Netlink);
  m_stopNotifier.emplace();
  // From here on a failure leaves the socket open: a later start answers that it is running, and a stop
  // clears it.
  ZYM_CHECK_RESULT(GetTracer(), ConfigureNetlinkConnector(true));
  ZYM_CHECK_RESULT(GetTracer(), m_pollThread.Create(&NetlinkInterceptor::PollTask, this),
                   "Cannot create poll thread");
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t NetlinkInterceptor::StopNetLink() {
  if (!m_socket) {
    ZYM_TRACE(GetTracer(), kCall, "nonblocking interceptor is stopped already");
    return zym::ZYM_FALSE;
  }
  ZYM_CHECK_RESULT(GetTracer(), ConfigureNetlinkConnector(false));
  if (m_stopNotifier) ZYM_REPORT_RESULT(GetTracer(), m_stopNotifier->Notify());
  m_pollThread.Join();
  m_stopNotifier.reset();
  m_socket.reset();
  m_featureMark.reset();
  return zym::ZYM_OK;
}

zym::result_t NetlinkInterceptor::InitNetlinkConnector() {
  m_socket = NetlinkSocket::Open(GetTracer());
  return m_socket ? zym::ZYM_OK : zym::ZYM_E_UNSPECIFIED;
}

zym::result_t NetlinkInterceptor::ConfigureNetlinkConnector(bool listen) {
  return m_socket->Configure(GetTracer(), listen);
}

// --- the poll thread
// ----------------------------------------------------------------------------------------

zym::result_t NetlinkInterceptor::PollTask() noexcept {
  ::prctl(PR_SET_NAME, kThreadName);
  zym::result_t result = zym::ZYM_E_UNSPECIFIED;
  try {
    result = Poll();
  } catch (...) {
    zym::ExceptionInFunctionToResult(GetTracer(), __func__);
  }
  if (ZYM_SUCCEEDED(result)) return result;
  ZYM_TRACE(GetTracer(), kCall, "unexpected poll thread exit, restart");
  ProductRestart(GetTracer());  // it traces how that went; there is nobody left here to act on it
  return zym::ZYM_E_UNSPECIFIED;
}

zym::result_t NetlinkInterceptor::Poll() {
  for (;;) {
    // The stop descriptor is looked at first: a stop wins over pending events.
    pollfd descriptors[] = {
        {.fd = m_stopNotifier->GetDescriptor(), .events = POLLIN, .revents = 0},
        {.fd = m_socket->GetDescriptor(), .events = POLLIN, .revents = 0},
    };
    const auto& [stop, netlink] = descriptors;
    const int nfds = ::poll(descriptors, std::size(descriptors), -1);
    const int error = errno;
    if (nfds == -1 && error == EINTR) continue;
    ZYM_CHECK(GetTracer(), nfds > 0, zym::ZYM_E_UNSPECIFIED, ": poll error: " << std::strerror(error));
    ZYM_CHECK(GetTracer(), !(stop.revents & kBroken), zym::ZYM_E_UNSPECIFIED, ": stop fd is corrupted");
    if ((stop.revents & POLLIN) != 0) {
      ZYM_TRACE(GetTracer(), kCall, "Received stop event, stopping polling");
      return zym::ZYM_OK;
    }
    ZYM_CHECK(GetTracer(), !(netlink.revents & kBroken), zym::ZYM_E_UNSPECIFIED, ": netlink fd is corrupted");
    // A failed read is traced there and survived: what the kernel dropped is lost, the rest still comes.
    if ((netlink.revents & POLLIN) != 0) static_cast<void>(ReadNetlink());
  }
}

zym::result_t NetlinkInterceptor::ReadNetlink() {
  alignas(Message) char buffer[kMaxMessageSize];
  for (;;) {
    const std::int64_t size = m_socket->Receive(buffer, sizeof(buffer));
    if (size > 0) {
      static_cast<void>(ProcessNetlink(buffer, static_cast<std::uint64_t>(size)));
      continue;
    }
    if (size == 0) return zym::ZYM_OK;
    const int error = errno;
    if (error == EINTR) continue;
    if (error == EAGAIN) return zym::ZYM_OK;
    ZYM_TRACE(GetTracer(), kFailure,
              "Error on recv() from netlink socket: " << std::strerror(error) << " (" << error << ")");
    return zym::ZYM_E_UNSPECIFIED;
  }
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
  zym::ExceptionInFunctionToResult(GetTracer(), "ProcessNetlink");
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

// A process that is gone by now is an ordinary case: it is reported with what the event tells.
void NetlinkInterceptor::ReadProcess(PidType pid, bool full, process_cache::ProcessInformation& info) {
  const auto read = full ? &GetFullProcessInfo : &GetProcessInfo;
  if (ZYM_SUCCEEDED(read(GetTracer(), m_procfs.get(), pid, info))) return;
  info = {};
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

// --- the exec listener
// --------------------------------------------------------------------------------------

zym::intrusive_ptr<IExecListener> NetlinkInterceptor::CopyListener() {
  const std::scoped_lock lock(m_listenerLock);
  return m_execListener;
}

zym::result_t NetlinkInterceptor::StartKprobes() {
  if (CopyListener()) {
    ZYM_TRACE(GetTracer(), kCall, "kprobes nonblocking interceptor is running already");
    return zym::ZYM_FALSE;
  }
  zym::intrusive_ptr<IExecListenerFactory> factory;
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), factory.Ref()),
                   "Could not get qor::IExecListenerFactory");
  zym::intrusive_ptr<IExecListener> listener;
  if (!ZYM_SUCCEEDED(factory->GetExecListener(listener.Ref()))) {
    ZYM_TRACE(GetTracer(), kWarning, "IExecListener is not available, proceed without");
  } else {
    const std::scoped_lock lock(m_listenerLock);
    m_execListener = std::move(listener);
  }
  if (m_fullInformation) ZYM_CHECK_RESULT(GetTracer(), SetEnvironCapturing(true));
  return zym::ZYM_OK;
}

zym::result_t NetlinkInterceptor::StopKprobes() {
  if (!CopyListener()) {
    ZYM_TRACE(GetTracer(), kCall, "nonblocking kprobes interceptor is stopped already");
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
    ZYM_TRACE(GetTracer(), kCall, "Dynamic ExecListener configuration is not supported");
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
