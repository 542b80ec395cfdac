// From a datagram to a handler: canned datagrams through the real source, cache, factory, queue and filter
// tables. Only /proc is canned. All tracing is refused, as on a machine that doesn't trace.
//
// The aim is 300,000 events a second on one core, which is 3.33 us of processor time for each, on all threads
// together.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "allocation_counter.h"
#include "process_manager/interception/event_dispatcher.h"
#include "process_manager/interception/system_events_factory.h"
#include "process_manager/interceptor.h"
#include "process_manager/non_blocking/netlink_interceptor.h"
#include "process_manager/process_cache/process_cache.h"
#include "support/fake_procfs_parser.h"
#include "support/fake_services.h"
#include "support/proc_connector.h"
#include "table.h"
#include "zym/object.h"

namespace {

using namespace qor::process_manager;
using test_support::ProcConnectorDatagram;
namespace event_type = system_interceptors::event_type;

class RefusingTracer : public zym::object::Ifaces<zym::ITracer> {
 public:
  zym::result_t GetRecord(std::uint32_t, void**, std::uint64_t) override { return zym::ZYM_E_NOT_MATCHED; }
  void CommitRecord(void*, std::uint64_t) override {}
};

class NoStatistics : public zym::object::Ifaces<qor::IScanStatisticsCollector> {
 public:
  zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&&) override { return zym::ZYM_OK; }
};

// Counts events and wakes the one who waits for a number of them.
class CountingHandler
    : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
 public:
  void OnEvent(ISystemEvent*, std::uint32_t) override {
    if (++m_count != m_expected) return;
    const std::scoped_lock lock(m_mutex);
    m_reached = true;
    m_changed.notify_one();
  }
  // Called while no event is under way.
  void Expect(std::uint64_t count) {
    const std::scoped_lock lock(m_mutex);
    m_expected = m_count + count;
    m_reached = false;
  }
  void Wait() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_reached; });
  }

 private:
  std::uint64_t m_count = 0;     // of the one thread that handles
  std::uint64_t m_expected = 0;  // changes only while nothing is under way
  std::mutex m_mutex;            // guards m_reached
  std::condition_variable m_changed;
  bool m_reached = false;
};

struct Host : test_support::FakeHost {
  Host() {
    locator->Add(zym::CreateObject<RefusingTracer>(), zym::ITracer::kIid);
    locator->Add(zym::CreateObject<NoStatistics>(), qor::IScanStatisticsCollector::kIid);
    const auto parser = zym::CreateObject<test_support::FakeProcfsParser>();
    parser->everyProcess.emplace();
    locator->Add(parser);
    cache = zym::CreateObject<ProcessCache>(locator.get(), 10'000'000);
    locator->Add(cache, IEventInfoProvider::kIid);
    dispatcher = zym::CreateObject<non_blocking::EventDispatcher>(locator.get());
    source = zym::CreateObject<non_blocking::NetlinkInterceptor>(
        locator.get(), dispatcher, zym::CreateObject<SystemEventsFactory>(locator.get()));
    for (const std::uint32_t type : {event_type::kCreateProcess, event_type::kExitProcess}) {
      non_blocking::Filter filter;
      filter.enabled = true;
      filter.handler = handler;
      filter.descriptor.type = type;
      filter.id = type;
      source->RegisterFilter(std::move(filter));
    }
  }

  zym::intrusive_ptr<CountingHandler> handler = zym::CreateObject<CountingHandler>();
  zym::intrusive_ptr<ProcessCache> cache;
  zym::intrusive_ptr<non_blocking::EventDispatcher> dispatcher;
  zym::intrusive_ptr<non_blocking::NetlinkInterceptor> source;
};

// A fork, an exec and an exit of each of many processes, as a build makes them: four events each.
constexpr std::uint32_t kProcesses = 2000;
constexpr std::uint64_t kEvents = 4 * kProcesses;

std::vector<ProcConnectorDatagram> MakeStorm() {
  std::vector<ProcConnectorDatagram> storm;
  std::uint64_t now = 1'000'000'000'000;
  for (std::uint32_t i = 0; i < kProcesses; ++i) {
    const std::uint32_t pid = 10'000 + i;
    storm.push_back(test_support::ForkDatagram(1000, pid, now += 1000));
    storm.push_back(test_support::ExecDatagram(pid, now += 1000));
    storm.push_back(test_support::ExitDatagram(pid, now += 1000));
  }
  return storm;
}

void BM_FromDatagramToHandler(benchmark::State& state) {
  Host host;
  const std::vector<ProcConnectorDatagram> storm = MakeStorm();
  const std::uint64_t before = bench::Allocations();
  for (auto _ : state) {
    host.handler->Expect(kEvents);
    for (const ProcConnectorDatagram& datagram : storm)
      host.source->ProcessNetlink(datagram.data(), datagram.size());
    host.handler->Wait();
  }
  const std::uint64_t allocations = bench::Allocations() - before;
  const auto events = static_cast<double>(kEvents) * static_cast<double>(state.iterations());
  state.SetItemsProcessed(static_cast<std::int64_t>(events));
  state.counters["allocations/event"] = static_cast<double>(allocations) / events;
}
BENCHMARK(BM_FromDatagramToHandler)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

// The part on the poll thread, which is what the kernel's buffer waits for.
void BM_OnThePollThread(benchmark::State& state) {
  Host host;
  const std::vector<ProcConnectorDatagram> storm = MakeStorm();
  for (auto _ : state) {
    host.handler->Expect(kEvents);
    for (const ProcConnectorDatagram& datagram : storm)
      host.source->ProcessNetlink(datagram.data(), datagram.size());
    state.PauseTiming();
    host.handler->Wait();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(kEvents) * static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_OnThePollThread)->UseRealTime()->Unit(benchmark::kMillisecond);

const bench::Rows g_rows(bench::Row{.what = "event from datagram to handler, all threads",
                                    .unit = "us",
                                    .ours = "BM_FromDatagramToHandler/process_time/real_time",
                                    .scale = 1000.0 * kEvents,
                                    .allowed = 1000.0 / 300},
                         bench::Row{
                             .what = "  operator new for each",
                             .unit = "",
                             .ours = "BM_FromDatagramToHandler/process_time/real_time: allocations/event"},
                         bench::Row{.what = "  of this on the poll thread",
                                    .unit = "us",
                                    .ours = "BM_OnThePollThread/real_time",
                                    .scale = 1000.0 * kEvents});

}  // namespace
