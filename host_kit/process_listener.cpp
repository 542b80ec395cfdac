#include "host_kit/process_listener.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

#include "host_kit/exit_event.h"
#include "host_kit/failure.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace host_kit {
namespace {

namespace event_type = system_interceptors::event_type;
using qor::process_manager::ISystemEvent;
using system_interceptors::event_processing::INonBlockingEventHandler;

}  // namespace

// Calls the host's function for what the module delivers and for what the kit finds out. The module's events
// come in the order of their numbers: when one has come, all creates with lower numbers have. An end that is
// found out before that waits.
class ProcessListener::Handler : public zym::object::Ifaces<INonBlockingEventHandler>,
                                 public zym::NonCopyable {
 public:
  Handler(zym::intrusive_ptr<ProcessGuard> guard, ProcessListener::OnEvent onEvent)
      : m_guard(std::move(guard)), m_onEvent(std::move(onEvent)) {}

  void OnEvent(ISystemEvent* event, std::uint32_t) noexcept override {
    const std::scoped_lock lock(m_mutex);
    const EventView view(*event);
    m_onEvent(view);
    m_newest = std::max(m_newest, view.GetSequence());
    for (; !m_waiting.empty() && m_waiting.begin()->first <= m_newest; m_waiting.erase(m_waiting.begin()))
      Deliver(*m_waiting.begin()->second);
  }

  void OnLateEnd(LateEnd&& end) noexcept {
    const std::scoped_lock lock(m_mutex);
    const std::uint64_t create = end.createSequence;
    const auto event = zym::CreateObject<ExitEvent>(m_guard, std::move(end));
    if (create <= m_newest)
      Deliver(*event);
    else
      m_waiting.emplace(create, event);
  }

  // Creates up to this number were delivered to somebody else.
  void BeginBehind(std::uint64_t sequence) {
    const std::scoped_lock lock(m_mutex);
    m_newest = sequence;
  }

  void DropWaiting() {
    const std::scoped_lock lock(m_mutex);
    for (const auto& [create, event] : m_waiting) event->Complete();
    m_waiting.clear();
  }

 private:
  void Deliver(ISystemEvent& event) {
    if (event.Complete()) m_onEvent(EventView(event));
  }

  const zym::intrusive_ptr<ProcessGuard> m_guard;
  const ProcessListener::OnEvent m_onEvent;  // called with m_mutex held: for one event after the other
  std::mutex m_mutex;                        // guards all below
  std::uint64_t m_newest = 0;                // of the numbers of the module's events
  std::multimap<std::uint64_t, zym::intrusive_ptr<ExitEvent>> m_waiting;  // by the number of their create
};

ProcessListener::ProcessListener(const Bootstrap& host, OnEvent onEvent, std::uint32_t sources)
    : m_interceptor(host.GetInterceptor()),
      m_sources(sources),
      m_host(host),
      m_handler(zym::CreateObject<Handler>(host.GetGuard(), std::move(onEvent))) {
  try {
    Start();
  } catch (...) {
    Stop();
    throw;
  }
}

ProcessListener::~ProcessListener() {
  Stop();
}

void ProcessListener::Start() {
  Require(zym::QueryInterface(m_interceptor, m_control.Ref()), "the sources of the interceptor are missing");
  const zym::intrusive_ptr<ProcessGuard>& guard = m_host.GetGuard();
  if (guard) {
    m_handler->BeginBehind(guard->NewestSequence());
    m_lateEnds.emplace(guard,
                       [handler = m_handler.get()](LateEnd&& end) { handler->OnLateEnd(std::move(end)); });
  }
  for (const std::uint32_t type : {event_type::kCreateProcess, event_type::kExitProcess}) {
    std::uint32_t id = 0;
    Require(
        m_interceptor->RegisterNonBlockingFilterAttachHandler({.type = type}, true, 0, m_handler.get(), &id),
        "cannot register a filter for process events");
    m_filters.push_back(id);
  }
  Require(
      m_control->EnableNonBlockingInterceptor(m_sources),
      "cannot listen to the kernel's process events (run as root, or grant CAP_NET_ADMIN; a trace at level "
      "300 has the reason)");
  if (guard && m_host.Enumerates()) {
    m_host.MeetProcesses();
    guard->LoseMissing();
  }
}

// A source that could not be enabled is disabled too: it may have been half-way.
void ProcessListener::Stop() noexcept {
  if (m_control) static_cast<void>(m_control->DisableNonBlockingInterceptor(m_sources));
  const system_interceptors::interceptor_facade::FilterIds filters{m_filters.data(),
                                                                   m_filters.data() + m_filters.size()};
  static_cast<void>(m_interceptor->DeleteFilters(filters));
  m_lateEnds.reset();
  m_handler->DropWaiting();
}

}  // namespace host_kit
