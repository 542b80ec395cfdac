// Process events, delivered to a function of the host.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "host_kit/bootstrap.h"
#include "host_kit/event_view.h"

namespace host_kit {

// The source of process events, turned on from construction to destruction, with a filter for the creates and
// one for the exits. One at a time for a Bootstrap, before which it must end: the source goes off with it.
class ProcessListener {
 public:
  // Called for one event after the other, on the module's worker thread "vornPrcMonProc". It calls no
  // operation of the interceptor and doesn't end the listener, which waits for it (interceptor.h). An
  // exception ends the process. What the view gives lives as long as the event, which a host may keep.
  using OnEvent = std::function<void(const EventView& event)>;

  // `sources`: bits of qor::process_manager::non_blocking_type. Throws Failure when the kernel's proc
  // connector, or another of these sources, can't be used.
  ProcessListener(const Bootstrap& host, OnEvent onEvent,
                  std::uint32_t sources = qor::process_manager::non_blocking_type::kNetlink);
  // When it returns, the function isn't running and won't be called again. Events that were not delivered yet
  // are dropped.
  ~ProcessListener();
  ProcessListener(const ProcessListener&) = delete;
  ProcessListener& operator=(const ProcessListener&) = delete;

 private:
  void Start(OnEvent onEvent);
  void Stop() noexcept;

  const zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> m_interceptor;
  const std::uint32_t m_sources;
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> m_control;
  std::vector<std::uint32_t> m_filters;
};

}  // namespace host_kit
