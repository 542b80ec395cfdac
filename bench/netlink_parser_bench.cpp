// Parse beside the least that could stand in its place: a copy of the same 68 bytes behind one branch. What
// is allowed is three times that, with nothing allocated and one virtual call for each disabled trace
// statement; a parse with these is beside the copy with as many virtual calls.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>

#include "allocation_counter.h"
#include "process_manager/non_blocking/netlink_parser.h"
#include "support/proc_connector.h"
#include "table.h"
#include "zym/object.h"

namespace {

using namespace qor::process_manager::non_blocking;
using test_support::ProcConnectorDatagram;

class RefusingTracer : public zym::object::Ifaces<zym::ITracer> {
 public:
  __attribute__((noinline)) zym::result_t GetRecord(std::uint32_t, void**, std::uint64_t) override {
    ++calls;
    return zym::ZYM_E_NOT_MATCHED;
  }
  void CommitRecord(void*, std::uint64_t) override {}

  std::uint64_t calls = 0;
};

// What a poll thread meets: forks, execs and exits of processes, threads, and a credential change.
const ProcConnectorDatagram g_datagrams[] = {
    test_support::ForkDatagram(100, 200, 1),
    test_support::ExecDatagram(200, 2),
    test_support::MakeDatagram(0x1, {200, 200, 201, 200}),
    test_support::MakeDatagram(0x4, {200, 200, 1000, 1000}, 3),
    test_support::MakeDatagram(0x80000000, {201, 200, 0, 0}),
    test_support::ExitDatagram(200, 4),
    test_support::ForkDatagram(100, 202, 5),
    test_support::ExitDatagram(202, 6),
};

const Message* MessageOf(const ProcConnectorDatagram& datagram) {
  return static_cast<const Message*>(datagram.data());
}

void CopyBehindABranch(std::uint64_t size, std::size_t i, Message& copy) {
  benchmark::DoNotOptimize(size);
  if (size >= sizeof(Message)) std::memcpy(&copy, g_datagrams[i].data(), sizeof(copy));
  benchmark::DoNotOptimize(copy);
}

void BM_CopyOf68BytesBehindABranch(benchmark::State& state) {
  Message copy;
  std::size_t i = 0;
  for (auto _ : state) {
    CopyBehindABranch(76, i, copy);
    i = (i + 1) % std::size(g_datagrams);
  }
}
BENCHMARK(BM_CopyOf68BytesBehindABranch);

void RefusedCall(zym::ITracer* tracer) {
  benchmark::DoNotOptimize(tracer);
  void* buffer = nullptr;
  benchmark::DoNotOptimize(tracer->GetRecord(800, &buffer, 512));
}

// As many as a parse makes of these datagrams: two of a process, one of a thread.
void BM_CopyWithRefusedCalls(benchmark::State& state) {
  const auto tracer = zym::CreateObject<RefusingTracer>();
  Message copy;
  std::size_t i = 0;
  for (auto _ : state) {
    RefusedCall(tracer.get());
    CopyBehindABranch(76, i, copy);
    if (i % 4 != 2) RefusedCall(tracer.get());
    i = (i + 1) % std::size(g_datagrams);
  }
}
BENCHMARK(BM_CopyWithRefusedCalls);

void Parse(benchmark::State& state, const NetlinkParser& parser) {
  EventRecord record;
  std::size_t i = 0;
  const std::uint64_t before = bench::Allocations();
  for (auto _ : state) {
    benchmark::DoNotOptimize(parser.Parse(MessageOf(g_datagrams[i]), g_datagrams[i].size(), &record));
    benchmark::DoNotOptimize(record);
    i = (i + 1) % std::size(g_datagrams);
  }
  const std::uint64_t allocations = bench::Allocations() - before;  // before the counters allocate
  state.counters["allocations"] = static_cast<double>(allocations);
}

void BM_ParseWithoutATracer(benchmark::State& state) {
  Parse(state, NetlinkParser(nullptr));
}
BENCHMARK(BM_ParseWithoutATracer);

void BM_ParseWithTracingDisabled(benchmark::State& state) {
  const auto tracer = zym::CreateObject<RefusingTracer>();
  const NetlinkParser parser(tracer);
  tracer->calls = 0;
  Parse(state, parser);
  state.counters["trace calls/datagram"] =
      static_cast<double>(tracer->calls) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_ParseWithTracingDisabled);

const bench::Rows g_rows(bench::Row{.what = "parse of a datagram",
                                    .unit = "ns",
                                    .ours = "BM_ParseWithoutATracer",
                                    .baseline = "BM_CopyOf68BytesBehindABranch",
                                    .baselineIs = "copy of its 68 bytes behind a branch",
                                    .allowedRatio = 3},
                         bench::Row{.what = "  with its trace statements refused",
                                    .unit = "ns",
                                    .ours = "BM_ParseWithTracingDisabled",
                                    .baseline = "BM_CopyWithRefusedCalls",
                                    .baselineIs = "the copy and as many virtual calls"},
                         bench::Row{.what = "  allocations of a million parses",
                                    .unit = "",
                                    .ours = "BM_ParseWithTracingDisabled: allocations"});

}  // namespace
