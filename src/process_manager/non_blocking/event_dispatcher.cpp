#include "process_manager/non_blocking/event_dispatcher.h"

#include <sys/prctl.h>

#include <algorithm>
#include <boost/asio/io_service.hpp>
#include <boost/asio/strand.hpp>
#include <boost/thread/thread.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "zym/trace.h"

namespace qor::process_manager::non_blocking {
namespace {

using zym::trace::kCall;
namespace event_type = system_interceptors::event_type;

constexpr const char* kThreadName = "vornPrcMonProc";

// 0 and 1 cause everything in the end: an order with them would put all events on one queue.
bool HasCauseOfItsOwn(PidType pid, PidType cpid) {
  return cpid >= 2 && cpid != pid;
}

}  // namespace

struct EventDispatcher::Queue {
  explicit Queue(boost::asio::io_service& service) : strand(service) {}

  boost::asio::io_service::strand strand;
  std::uint64_t size = 0;  // guarded by m_queueLock
  std::size_t index = 0;
};

struct EventDispatcher::Service {
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
  m_service->threads.create_thread([this] {
    ::prctl(PR_SET_NAME, kThreadName);
    m_service->io.run();
  });
}

EventDispatcher::~EventDispatcher() {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  m_stop = true;
  m_service->io.stop();
  m_service->threads.join_all();
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
      ZYM_TRACE(GetTracer(), kCall,
                __func__ << ": "
                         << "event queue is full. skip all events except exit_process");
      continue;
    }
    Queue& queue = GetStrand(*event);
    queue.strand.post([this, queued = std::move(event)] {
      if (!m_stop) ProcessQueuedEvent(queued);
    });
  }
  events.clear();
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

EventDispatcher::Queue& EventDispatcher::GetStrand(ISystemEvent& event) {
  const PidType pid = event.GetPid();
  const PidType cpid = event.GetCpid();
  const std::scoped_lock lock(m_queueLock);
  const auto smallest =
      std::ranges::min_element(m_service->queues, {}, [](const auto& queue) { return queue->size; });
  Queue* chosen = smallest->get();
  if (HasCauseOfItsOwn(pid, cpid)) chosen = &Enter(cpid, *chosen);
  // Where the pid is already wins over where its cause is.
  Queue& queue = Enter(pid, *chosen);
  ++queue.size;
  ++m_total;
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << ": "
                     << "pid: " << pid << ", cpid: " << cpid << ", assigned to queue " << queue.index
                     << ", size: " << queue.size << ", processing pids count: " << m_pids.size()
                     << ", all: " << m_total.load());
  return queue;
}

void EventDispatcher::ProcessQueuedEvent(const zym::intrusive_ptr<ISystemEvent>& event) {
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << ": "
                     << "nonblocking event: " << std::u16string_view(event->ToString()));
  if (event->Complete()) CallHandler(event);
  OnEventProcessed(*event);
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
    ZYM_TRACE(GetTracer(), zym::trace::kFailure,
              "ProcessQueuedEvent"
                  << ": "
                  << "Unsupported event : " << event->GetType());
    return;
  }
  const std::shared_lock lock(m_handlerLock);
  if (const EventHandler& handler = m_handlers[*index]) handler(event);
}

void EventDispatcher::OnEventProcessed(ISystemEvent& event) {
  const PidType pid = event.GetPid();
  const PidType cpid = event.GetCpid();
  const std::scoped_lock lock(m_queueLock);
  if (HasCauseOfItsOwn(pid, cpid)) Leave(cpid);
  Queue& queue = Leave(pid);
  --queue.size;
  --m_total;
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << ": "
                     << "pid: " << pid << ", cpid: " << cpid << ", removed from queue " << queue.index
                     << ", size: " << queue.size << ", processing pids count: " << m_pids.size()
                     << ", all: " << m_total.load());
}

}  // namespace qor::process_manager::non_blocking
