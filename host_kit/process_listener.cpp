#include "host_kit/process_listener.h"

#include <utility>

#include "host_kit/failure.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace host_kit {
namespace {

namespace event_type = system_interceptors::event_type;
using system_interceptors::event_processing::INonBlockingEventHandler;

class Handler : public zym::object::Ifaces<INonBlockingEventHandler>, public zym::NonCopyable {
 public:
  explicit Handler(ProcessListener::OnEvent onEvent) : m_onEvent(std::move(onEvent)) {}

  void OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t) noexcept override {
    m_onEvent(EventView(*event));
  }

 private:
  const ProcessListener::OnEvent m_onEvent;
};

}  // namespace

ProcessListener::ProcessListener(const Bootstrap& host, OnEvent onEvent, std::uint32_t sources)
    : m_interceptor(host.GetInterceptor()), m_sources(sources) {
  try {
    Start(std::move(onEvent));
  } catch (...) {
    Stop();
    throw;
  }
}

ProcessListener::~ProcessListener() {
  Stop();
}

void ProcessListener::Start(OnEvent onEvent) {
  Require(zym::QueryInterface(m_interceptor, m_control.Ref()), "the sources of the interceptor are missing");
  const auto handler = zym::CreateObject<Handler>(std::move(onEvent));
  for (const std::uint32_t type : {event_type::kCreateProcess, event_type::kExitProcess}) {
    std::uint32_t id = 0;
    Require(
        m_interceptor->RegisterNonBlockingFilterAttachHandler({.type = type}, true, 0, handler.get(), &id),
        "cannot register a filter for process events");
    m_filters.push_back(id);
  }
  Require(
      m_control->EnableNonBlockingInterceptor(m_sources),
      "cannot listen to the kernel's process events (run as root, or grant CAP_NET_ADMIN; a trace at level "
      "300 has the reason)");
}

// A source that could not be enabled is disabled too: it may have been half-way.
void ProcessListener::Stop() noexcept {
  if (m_control) static_cast<void>(m_control->DisableNonBlockingInterceptor(m_sources));
  const system_interceptors::interceptor_facade::FilterIds filters{m_filters.data(),
                                                                   m_filters.data() + m_filters.size()};
  static_cast<void>(m_interceptor->DeleteFilters(filters));
}

}  // namespace host_kit
