// Queue between the sources and the handlers, with the thread that calls the handlers.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include "process_manager/interception/i_event_dispatcher.h"
#include "process_manager/types.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager::non_blocking {

// Runs from construction to destruction on one thread of its own, "vornPrcMonProc". What is queued at
// destruction is released and reaches no handler; the last reference must not go on that thread, which can't
// wait for itself.
//
// An exception of a handler is traced, and the event counts as processed. An event that can't be queued for
// want of memory is lost; the exception is traced.
//
// When the last event is handled the worker rests for a millisecond before it waits for the next one. Waking
// a thread costs both sides more than most handlers do: in a storm the worker finds some dozen events after
// each rest, and their sources made no system call for them. An event that comes alone is handled at once;
// one that comes within the rest is handled up to a millisecond later.
//
// Written for several queues, each on a strand of its own: a process and the one that caused its events share
// a queue while either has events in flight, which keeps their order. There is one queue today, and so one
// order.
class EventDispatcher : public zym::object::Ifaces<IEventDispatcher>,
                        public zym::TracerProvider,
                        public zym::NonCopyable {
 public:
  static constexpr std::uint64_t kPendingLimit = 2'000'000;

  // An event that finds more than `pendingLimit` pending is dropped unless it is an exit_process. Throws when
  // the locator has no tracer or the thread can't be made.
  explicit EventDispatcher(zym::IServiceLocator* locator, std::uint64_t pendingLimit = kPendingLimit);
  ~EventDispatcher();

  void Dispatch(zym::types::vector_t<zym::intrusive_ptr<ISystemEvent>>& events) override;

  void SetCreateProcessHandler(EventHandler handler) override {
    SetHandler(kCreateProcess, std::move(handler));
  }
  void SetExitProcessHandler(EventHandler handler) override { SetHandler(kExitProcess, std::move(handler)); }
  void SetFileCreatedHandler(EventHandler handler) override { SetHandler(kFileCreated, std::move(handler)); }
  void SetFileChangedHandler(EventHandler handler) override { SetHandler(kFileChanged, std::move(handler)); }
  void SetConsoleInputHandler(EventHandler handler) override {
    SetHandler(kConsoleInput, std::move(handler));
  }

  // Events accepted and not finished.
  [[nodiscard]] std::uint64_t GetTotal() const noexcept { return m_total; }
  // Pids with events in flight, whether their own or those they caused.
  [[nodiscard]] std::size_t GetProcessingPidsCount() const;

 private:
  struct Service;  // the I/O service, its queues and its thread
  struct Queue;

  enum HandlerIndex {
    kCreateProcess,
    kExitProcess,
    kFileCreated,
    kFileChanged,
    kConsoleInput,
    kHandlerCount
  };

  // Whom an event counts for.
  struct Pids {
    PidType pid;
    PidType cpid;
  };

  // A pid with events in flight.
  struct PidInFlight {
    Queue* queue;
    std::uint64_t count;
  };

  void SetHandler(HandlerIndex index, EventHandler handler);
  static Pids PidsOf(ISystemEvent& event) { return {event.GetPid(), event.GetCpid()}; }
  static bool HasCauseOfItsOwn(Pids pids);

  void Accept(zym::intrusive_ptr<ISystemEvent> event);
  Queue& GetStrand(Pids pids);
  void Stop();
  void Rest() noexcept;
  void ProcessQueuedEvent(const zym::intrusive_ptr<ISystemEvent>& event) noexcept;
  void CallHandler(const zym::intrusive_ptr<ISystemEvent>& event);
  void OnEventProcessed(Pids pids);
  Queue& Enter(PidType pid, Queue& chosen);
  Queue& Leave(PidType pid);

  const std::uint64_t m_pendingLimit;
  std::mutex m_restLock;  // guards the setting of the next member, which is read without it
  std::atomic<bool> m_stop{false};
  std::condition_variable m_stopped;  // ends a rest

  mutable std::mutex m_queueLock;  // guards the sizes of the queues and the map
  std::unordered_map<PidType, PidInFlight> m_pids;

  std::shared_mutex m_handlerLock;  // guards the handlers; held for reading while one runs
  EventHandler m_handlers[kHandlerCount];

  std::atomic<std::uint64_t> m_total{0};

  std::unique_ptr<Service> m_service;
};

}  // namespace qor::process_manager::non_blocking
