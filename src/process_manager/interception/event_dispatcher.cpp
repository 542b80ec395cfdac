#include "process_manager/interception/event_dispatcher.h"

#include <sys/prctl.h>

#include <algorithm>
#include <boost/asio/io_service.hpp>
#include <boost/asio/strand.hpp>
#include <boost/thread/thread.hpp>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager::non_blocking {
namespace {

using zym::trace::kCall;
namespace event_type = system_interceptors::event_type;

constexpr const char* kThreadName = "vornPrcMonProc";
constexpr std::chrono::milliseconds kRest{1};

}  // namespace

struct EventDispatcher::Queue {
  explicit Queue(boost::asio::io_service& service) : strand(service) {}

  boost::asio::io_service::strand strand;
  std::uint64_t size = 0;  // guarded by m_queueLock
  std::size_t index = 0;
};

struct EventDispatcher::Service {
  // The group would let a thread run on that it has made and then finds no room to keep.
  template <class Run>
  void AddThread(Run run) {
    auto thread = std::make_unique<boost::thread>(std::move(run));
    try {
      threads.add_thread(thread.get());
      static_cast<void>(thread.release());  // the group owns it now
    } catch (...) {
      io.stop();
      thread->join();
      throw;
    }
  }

  boost::asio::io_service io;
  boost::asio::io_service::work work{io};
  boost::thread_group threads;
  std::vector<std::unique_ptr<Queue>> queues;
};

EventDispatcher::EventDispatcher(zym::IServiceLocator* locator, std::uint64_t pendingLimit)
    : TracerProvider(locator, "EventDispatcher"),
      m_pendingLimit(pendingLimit),
      m_service(std::make_unique<Service>()) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  m_service->queues.push_back(std::make_unique<Queue>(m_service->io));
  m_service->AddThread([this] {
    ::prctl(PR_SET_NAME, kThreadName);
    m_service->io.run();
  });
}

EventDispatcher::~EventDispatcher() {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  Stop();
  try {
    m_service->threads.join_all();
  } catch (...) {
    // Released on the worker, which can't wait for itself: the trace says why the process ends here.
    zym::ExceptionInFunctionToResult(GetTracer(), __func__);
    std::terminate();
  }
}

void EventDispatcher::Stop() {
  {
    const std::scoped_lock lock(m_restLock);
    m_stop = true;
  }
  m_stopped.notify_all();
  m_service->io.stop();
}

void EventDispatcher::SetHandler(HandlerIndex index, EventHandler handler) {
  const std::unique_lock lock(m_handlerLock);
  m_handlers[index].swap(handler);
}

std::size_t EventDispatcher::GetProcessingPidsCount() const {
  const std::scoped_lock lock(m_queueLock);
  return m_pids.size();
}

void EventDispatcher::Dispatch(zym::types::vector_t<zym::intrusive_ptr<ISystemEvent>>& events) {
  for (zym::intrusive_ptr<ISystemEvent>& event : events) {
    // Without the queue lock: several callers may pass the limit by one each.
    if (m_total > m_pendingLimit && event->GetType() != event_type::kExitProcess) {
      ZYM_TRACE(GetTracer(), kCall, __func__ << ": event queue is full. skip all events except exit_process");
      continue;
    }
    try {
      Accept(std::move(event));
    } catch (...) {
      zym::ExceptionInFunctionToResult(GetTracer(), __func__);
    }
  }
  events.clear();
}

void EventDispatcher::Accept(zym::intrusive_ptr<ISystemEvent> event) {
  const Pids pids = PidsOf(*event);
  Queue& queue = GetStrand(pids);
  try {
    queue.strand.post([this, queued = std::move(event)]() mutable {
      if (m_stop) return;
      ProcessQueuedEvent(queued);
      queued.Reset();
      if (m_total == 0) Rest();
    });
  } catch (...) {
    OnEventProcessed(pids);
    throw;
  }
}

// 0 and 1 cause everything in the end: an order with them would put all events on one queue.
bool EventDispatcher::HasCauseOfItsOwn(Pids pids) {
  return pids.cpid >= 2 && pids.cpid != pids.pid;
}

// A pid that is in flight stays on its queue; another one enters on `chosen`.
EventDispatcher::Queue& EventDispatcher::Enter(PidType pid, Queue& chosen) {
  PidInFlight& inFlight = m_pids.try_emplace(pid, PidInFlight{&chosen, 0}).first->second;
  ++inFlight.count;
  return *inFlight.queue;
}

EventDispatcher::Queue& EventDispatcher::Leave(PidType pid) {
  const auto found = m_pids.find(pid);
  Queue& queue = *found->second.queue;
  if (--found->second.count == 0) m_pids.erase(found);
  return queue;
}

EventDispatcher::Queue& EventDispatcher::GetStrand(Pids pids) {
  const std::scoped_lock lock(m_queueLock);
  const auto smallest =
      std::ranges::min_element(m_service->queues, {}, [](const auto& queue) { return queue->size; });
  Queue* chosen = smallest->get();
  if (HasCauseOfItsOwn(pids)) chosen = &Enter(pids.cpid, *chosen);
  try {
    // Where the pid is already wins over where its cause is.
    chosen = &Enter(pids.pid, *chosen);
  } catch (...) {
    if (HasCauseOfItsOwn(pids)) Leave(pids.cpid);
    throw;
  }
  Queue& queue = *chosen;
  ++queue.size;
  ++m_total;
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << ": pid: " << pids.pid << ", cpid: " << pids.cpid << ", assigned to queue "
                     << queue.index << ", size: " << queue.size
                     << ", processing pids count: " << m_pids.size() << ", all: " << m_total.load());
  return queue;
}

void EventDispatcher::ProcessQueuedEvent(const zym::intrusive_ptr<ISystemEvent>& event) noexcept {
  try {
    ZYM_TRACE(GetTracer(), kCall,
              __func__ << ": nonblocking event: " << std::u16string_view(event->ToString()));
    if (event->Complete()) CallHandler(event);
  } catch (...) {
    zym::ExceptionInFunctionToResult(GetTracer(), __func__);
  }
  OnEventProcessed(PidsOf(*event));
}

// Still on the strand: what is dispatched meanwhile is only appended to it, and wakes nobody.
void EventDispatcher::Rest() noexcept {
  std::unique_lock lock(m_restLock);
  m_stopped.wait_for(lock, kRest, [this] { return m_stop.load(); });
}

void EventDispatcher::CallHandler(const zym::intrusive_ptr<ISystemEvent>& event) {
  const auto indexOf = [](std::uint32_t type) -> std::optional<HandlerIndex> {
    switch (type) {
      case event_type::kCreateProcess:
        return kCreateProcess;
      case event_type::kExitProcess:
        return kExitProcess;
      case event_type::kFileCreated:
        return kFileCreated;
      case event_type::kFileChanged:
        return kFileChanged;
      case event_type::kConsoleInput:
        return kConsoleInput;
      default:
        return std::nullopt;
    }
  };
  const std::optional<HandlerIndex> index = indexOf(event->GetType());
  if (!index) {
    // Under the name of its caller: meant.
    ZYM_TRACE(GetTracer(), zym::trace::kFailure,
              "ProcessQueuedEvent: Unsupported event : " << event->GetType());
    return;
  }
  const std::shared_lock lock(m_handlerLock);
  if (const EventHandler& handler = m_handlers[*index]) handler(event);
}

void EventDispatcher::OnEventProcessed(Pids pids) {
  const std::scoped_lock lock(m_queueLock);
  if (HasCauseOfItsOwn(pids)) Leave(pids.cpid);
  Queue& queue = Leave(pids.pid);
  --queue.size;
  --m_total;
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << ": pid: " << pids.pid << ", cpid: " << pids.cpid << ", removed from queue "
                     << queue.index << ", size: " << queue.size
                     << ", processing pids count: " << m_pids.size() << ", all: " << m_total.load());
}

}  // namespace qor::process_manager::non_blocking
