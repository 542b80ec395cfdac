// Process events, delivered to a function of the host.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "host_kit/bootstrap.h"
#include "host_kit/event_view.h"
#include "host_kit/late_ends.h"

namespace host_kit {

// The source of process events, turned on from construction to destruction, with a filter for the creates and
// one for the exits. One at a time for a Bootstrap, before which it must end: the source goes off with it.
//
// With a guard in front of the cache (Bootstrap offers one unless its options decline) the function sees each
// fork, exec and end that the kernel reported once, each image under one unique pid, and its create before
// its exit. The end of a process that outlived its first thread is an ordinary exit. So is an end that was
// lost, and is found out later; its IsFake is true. What was lost may come back so: nothing else is a fake.
class ProcessListener {
 public:
  // Called for one event after the other, mostly on the module's worker thread "vornPrcMonProc", and for
  // ends that the kit has found out on the kit's "vornKitEnds". It calls no operation of the interceptor and
  // doesn't end the listener, which waits for it (interceptor.h). An exception ends the process. What the
  // view gives lives as long as the event, which a host may keep.
  using OnEvent = std::function<void(const EventView& event)>;

  // `sources`: bits of qor::process_manager::non_blocking_type. A host that enumerates, and has a guard,
  // enumerates again behind the start of the sources: whoever began since the first time is known then, and
  // the end of whoever has ended since is reported, as a fake. (Where the pid is another's by then, both are
  // taken for one process.) Throws Failure when the kernel's proc connector, or another of these sources,
  // can't be used.
  ProcessListener(const Bootstrap& host, OnEvent onEvent,
                  std::uint32_t sources = qor::process_manager::non_blocking_type::kNetlink);
  // When it returns, the function isn't running and won't be called again. Events that were not delivered yet
  // are dropped.
  ~ProcessListener();
  ProcessListener(const ProcessListener&) = delete;
  ProcessListener& operator=(const ProcessListener&) = delete;

 private:
  class Handler;

  void Start();
  void Stop() noexcept;

  const zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> m_interceptor;
  const std::uint32_t m_sources;
  const Bootstrap& m_host;
  const zym::intrusive_ptr<Handler> m_handler;
  std::optional<LateEnds> m_lateEnds;
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> m_control;
  std::vector<std::uint32_t> m_filters;
};

}  // namespace host_kit
