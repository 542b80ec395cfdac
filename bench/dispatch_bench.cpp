// Events from Dispatch to their handler, beside the plainest queue that could carry them: a deque with a
// mutex and a condition variable. All tracing is refused, as on a machine that doesn't trace.
//
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <fstream>
#include <mutex>
#include <thread>

#include "allocation_counter.h"
#include "process_manager/interception/event_dispatcher.h"
#include "process_manager/interception/filter_manager.h"
#include "process_manager/interception/system_events_factory.h"
#include "process_manager/process_cache.h"
#include "support/fake_services.h"
#include "table.h"
#include "zym/object.h"

namespace {

using qor::process_manager::ISystemEvent;
using qor::process_manager::SystemEventsFactory;
using qor::process_manager::non_blocking::EventDispatcher;
using qor::process_manager::process_cache::EventInfo;
namespace event_type = system_interceptors::event_type;

using Event = zym::intrusive_ptr<ISystemEvent>;
using Events = zym::types::vector_t<Event>;

constexpr std::uint64_t kBatch = 10'000;

class RefusingTracer : public zym::object::Ifaces<zym::ITracer> {
 public:
  zym::result_t GetRecord(std::uint32_t, void**, std::uint64_t) override { return zym::ZYM_E_NOT_MATCHED; }
  void CommitRecord(void*, std::uint64_t) override {}
};

// Knows every process and remembers none.
class NoCache : public zym::object::Ifaces<qor::process_manager::IEventInfoProvider> {
 public:
  using ProcessInformation = qor::process_manager::process_cache::ProcessInformation;

  void OnFork(ProcessInformation&&, EventInfo&) override {}
  void OnExec(ProcessInformation&&, EventInfo&, EventInfo&) override {}
  void OnExit(pid_t, EventInfo&) override {}
  void OnExecPerm(ProcessInformation&&, EventInfo&, EventInfo&) override {}
  void OnExecDeny(ProcessInformation&&, EventInfo&, EventInfo&, EventInfo&, EventInfo&) override {}
  zym::result_t OnCreateProcess(bool, EventInfo&) override { return zym::ZYM_OK; }
  void OnExitProcess(EventInfo&) override {}
  void OnUidChange(pid_t, uid_t, uid_t) override {}
  void OnGidChange(pid_t, gid_t, gid_t) override {}
};

class NoStatistics : public zym::object::Ifaces<qor::IScanStatisticsCollector> {
 public:
  zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&&) override { return zym::ZYM_OK; }
};

struct Host : test_support::FakeHost {
  Host() {
    locator->Add(zym::CreateObject<RefusingTracer>());
    locator->Add(zym::CreateObject<NoCache>());
    locator->Add(zym::CreateObject<NoStatistics>());
  }
};

// Counts handled events and wakes the one who waits for a number of them.
class Counter {
 public:
  void Expect(std::uint64_t count) { m_expected = m_count + count; }
  void Count() {
    if (++m_count < m_expected) return;
    const std::scoped_lock lock(m_mutex);
    m_reached = true;
    m_changed.notify_one();
  }
  void Wait() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_reached; });
    m_reached = false;
  }

 private:
  std::uint64_t m_count = 0;     // of the worker
  std::uint64_t m_expected = 0;  // set while nothing is in flight
  std::mutex m_mutex;            // guards m_reached
  std::condition_variable m_changed;
  bool m_reached = false;
};

// Forks, as a busy machine has them: pids in a row, each with a path and a command line.
Event MakeFork(SystemEventsFactory& factory, std::uint64_t number) {
  EventInfo info;
  info.isFork = true;
  info.sequence = number;
  info.info.pid = static_cast<qor::PidType>(1000 + number % 20'000);
  info.info.creatorPid = 900;
  info.info.imagePath = u"/usr/bin/some-program";
  info.info.workingDirectory = u"/";
  return factory.Create(event_type::kCreateProcess, info, {}, -1);
}

Events MakeForks(SystemEventsFactory& factory, std::uint64_t count) {
  Events events;
  for (std::uint64_t i = 0; i < count; ++i) events.push_back(MakeFork(factory, i));
  return events;
}

// The baseline: no strands, no pids, no limit.
class PlainQueue {
 public:
  explicit PlainQueue(Counter& counter) : m_thread([this, &counter] { Run(counter); }) {}
  ~PlainQueue() {
    {
      const std::scoped_lock lock(m_mutex);
      m_stop = true;
      m_changed.notify_one();
    }
    m_thread.join();
  }
  PlainQueue(const PlainQueue&) = delete;
  PlainQueue& operator=(const PlainQueue&) = delete;

  void Dispatch(const Event& event) {
    const std::scoped_lock lock(m_mutex);
    m_events.push_back(event);
    m_changed.notify_one();
  }

 private:
  void Run(Counter& counter) {
    while (true) {
      Event event;
      {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_stop || !m_events.empty(); });
        if (m_stop) return;
        event = std::move(m_events.front());
        m_events.pop_front();
      }
      if (event->Complete()) counter.Count();
    }
  }

  std::mutex m_mutex;  // guards all below
  std::condition_variable m_changed;
  std::deque<Event> m_events;
  bool m_stop = false;
  std::thread m_thread;
};

void SetRate(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}

void BM_PlainQueue(benchmark::State& state) {
  Host host;
  const auto factory = zym::CreateObject<SystemEventsFactory>(host.locator.get());
  const Events events = MakeForks(*factory, kBatch);
  Counter counter;
  PlainQueue queue(counter);
  for (auto _ : state) {
    counter.Expect(kBatch);
    for (const Event& event : events) queue.Dispatch(event);
    counter.Wait();
  }
  SetRate(state);
}
BENCHMARK(BM_PlainQueue)->MeasureProcessCPUTime()->UseRealTime();

// The same events through the dispatcher, one Dispatch each as a source does it.
void BM_DispatchToHandler(benchmark::State& state) {
  Host host;
  const auto factory = zym::CreateObject<SystemEventsFactory>(host.locator.get());
  const Events forks = MakeForks(*factory, kBatch);
  Counter counter;
  const auto dispatcher = zym::CreateObject<EventDispatcher>(host.locator.get());
  dispatcher->SetCreateProcessHandler([&](const Event&) { counter.Count(); });
  Events one;
  for (auto _ : state) {
    counter.Expect(kBatch);
    for (const Event& event : forks) {
      one.push_back(event);
      dispatcher->Dispatch(one);
    }
    counter.Wait();
  }
  SetRate(state);
}
BENCHMARK(BM_DispatchToHandler)->MeasureProcessCPUTime()->UseRealTime();

// With what a source does before and behind it: the event is made of its record, and a table of filters gives
// it to one handler.
class CountingHandler
    : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
 public:
  explicit CountingHandler(Counter* counter) : m_counter(counter) {}
  void OnEvent(ISystemEvent*, std::uint32_t) override { m_counter->Count(); }

 private:
  Counter* const m_counter;
};

class Source : public zym::object::Ifaces<>,
               public qor::process_manager::FilterManager<qor::process_manager::non_blocking::Filter> {
 public:
  explicit Source(zym::IServiceLocator* locator) : FilterManager(locator, "Source") {}
  zym::result_t Start() override { return zym::ZYM_OK; }
  zym::result_t Stop() override { return zym::ZYM_OK; }
};

void BM_RecordToHandler(benchmark::State& state) {
  Host host;
  const auto factory = zym::CreateObject<SystemEventsFactory>(host.locator.get());
  Counter counter;
  const auto source = zym::CreateObject<Source>(host.locator.get());
  source->RegisterFilter({.enabled = true,
                          .handler = zym::CreateObject<CountingHandler>(&counter),
                          .descriptor = {.type = event_type::kCreateProcess}});
  const auto dispatcher = zym::CreateObject<EventDispatcher>(host.locator.get());
  dispatcher->SetCreateProcessHandler(
      [&](const Event& event) { source->OnEvent(event->GetType(), event.get()); });
  Events one;
  const std::uint64_t before = bench::Allocations();
  for (auto _ : state) {
    counter.Expect(kBatch);
    for (std::uint64_t i = 0; i < kBatch; ++i) {
      one.push_back(MakeFork(*factory, i));
      dispatcher->Dispatch(one);
    }
    counter.Wait();
  }
  const std::uint64_t allocations = bench::Allocations() - before;
  SetRate(state);
  state.counters["operator new/event"] =
      static_cast<double>(allocations) / static_cast<double>(state.iterations() * kBatch);
}
BENCHMARK(BM_RecordToHandler)->MeasureProcessCPUTime()->UseRealTime();

std::uint64_t ResidentBytes() {
  std::uint64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

// As many events as the dispatcher lets pend, behind a handler that doesn't return.
void BM_MemoryOfTheFullQueue(benchmark::State& state) {
  for (auto _ : state) {
    Host host;
    const auto factory = zym::CreateObject<SystemEventsFactory>(host.locator.get());
    std::mutex held;
    std::unique_lock hold(held);
    auto dispatcher = zym::CreateObject<EventDispatcher>(host.locator.get());
    dispatcher->SetCreateProcessHandler([&](const Event&) { const std::scoped_lock wait(held); });
    const std::uint64_t before = ResidentBytes();
    Events one;
    for (std::uint64_t i = 0; i < EventDispatcher::kPendingLimit; ++i) {
      one.push_back(MakeFork(*factory, i));
      dispatcher->Dispatch(one);
    }
    const std::uint64_t bytes = ResidentBytes() - before;
    state.counters["MiB"] = static_cast<double>(bytes) / 1048576;
    state.counters["bytes/event"] = static_cast<double>(bytes) / EventDispatcher::kPendingLimit;
    hold.unlock();
    dispatcher = {};
  }
}
BENCHMARK(BM_MemoryOfTheFullQueue)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMillisecond);

const bench::Rows g_rows(bench::Row{.what = "event through the dispatcher, all threads",
                                    .unit = "us",
                                    .ours = "BM_DispatchToHandler/process_time/real_time",
                                    .scale = 1000.0 * kBatch,
                                    .baseline = "BM_PlainQueue/process_time/real_time",
                                    .baselineIs = "a deque with a mutex and a condition"},
                         bench::Row{.what = "  made of its record and filtered, too",
                                    .unit = "us",
                                    .ours = "BM_RecordToHandler/process_time/real_time",
                                    .scale = 1000.0 * kBatch,
                                    .baseline = "BM_PlainQueue/process_time/real_time",
                                    .baselineIs = "a deque with a mutex and a condition"},
                         bench::Row{.what = "2,000,000 pending events",
                                    .unit = "MiB",
                                    .ours = "BM_MemoryOfTheFullQueue/iterations:1: MiB"},
                         bench::Row{.what = "  each",
                                    .unit = "bytes",
                                    .ours = "BM_MemoryOfTheFullQueue/iterations:1: bytes/event"});

}  // namespace
