// A trace statement whose level is off, beside the one virtual call that it is allowed to cost.
#include <benchmark/benchmark.h>

#include "allocation_counter.h"
#include "table.h"
#include "zym/object.h"
#include "zym/prefix_tracer.h"
#include "zym/trace.h"

namespace {

class RefusingTracer : public zym::object::Ifaces<zym::ITracer> {
 public:
  // A real call: not one that the compiler guesses and opens up.
  __attribute__((noinline)) zym::result_t GetRecord(std::uint32_t, void**, std::uint64_t) override {
    ++calls;
    return zym::ZYM_E_NOT_MATCHED;
  }
  void CommitRecord(void*, std::uint64_t) override { ++commits; }

  std::uint64_t calls = 0;
  std::uint64_t commits = 0;
};

// Formatting is counted by the formatted thing itself.
struct Counted {
  std::uint64_t* formatted;
};
void AppendTo(zym::trace::Record& record, const Counted& counted) {
  ++*counted.formatted;
  record << "text";
}

void BM_OneVirtualCall(benchmark::State& state) {
  const auto tracer = zym::CreateObject<RefusingTracer>();
  zym::ITracer* inner = tracer.get();
  benchmark::DoNotOptimize(inner);
  for (auto _ : state) {
    void* buffer = nullptr;
    benchmark::DoNotOptimize(inner->GetRecord(800, &buffer, 512));
  }
}
BENCHMARK(BM_OneVirtualCall);

void BM_DisabledTraceStatement(benchmark::State& state) {
  const auto tracer = zym::CreateObject<RefusingTracer>();
  zym::ITracer* inner = tracer.get();
  benchmark::DoNotOptimize(inner);
  std::uint64_t formatted = 0;
  const std::uint64_t before = bench::Allocations();
  for (auto _ : state) ZYM_TRACE(inner, zym::trace::kCall, "pid: " << 42 << Counted{&formatted});
  const std::uint64_t allocations = bench::Allocations() - before;  // before the counters allocate
  const auto statements = static_cast<double>(state.iterations());
  state.counters["calls/statement"] = static_cast<double>(tracer->calls) / statements;
  state.counters["formatted"] = static_cast<double>(formatted);
  state.counters["allocations"] = static_cast<double>(allocations);
}
BENCHMARK(BM_DisabledTraceStatement);

// Behind a component's prefix and a ceiling that the level exceeds: the host isn't called at all.
void BM_DisabledTraceStatementBehindAPrefix(benchmark::State& state) {
  const auto tracer = zym::CreateObject<RefusingTracer>();
  const auto prefixed = zym::trace::WithPrefix(tracer, "NetlinkInterceptor");
  std::uint64_t formatted = 0;
  const std::uint64_t before = bench::Allocations();
  for (auto _ : state) ZYM_TRACE(prefixed, 1001, "pid: " << 42 << Counted{&formatted});
  const std::uint64_t allocations = bench::Allocations() - before;  // before the counters allocate
  state.counters["host calls"] = static_cast<double>(tracer->calls);
  state.counters["formatted"] = static_cast<double>(formatted);
  state.counters["allocations"] = static_cast<double>(allocations);
}
BENCHMARK(BM_DisabledTraceStatementBehindAPrefix);

const bench::Rows g_rows(
    bench::Row{.what = "disabled trace statement",
               .unit = "ns",
               .ours = "BM_DisabledTraceStatement",
               .baseline = "BM_OneVirtualCall",
               .baselineIs = "one virtual call"},
    bench::Row{.what = "  virtual calls in it",
               .unit = "",
               .ours = "BM_DisabledTraceStatement: calls/statement",
               .allowed = 1},
    bench::Row{.what = "  formatted in all", .unit = "", .ours = "BM_DisabledTraceStatement: formatted"},
    bench::Row{.what = "  allocations in all", .unit = "", .ours = "BM_DisabledTraceStatement: allocations"});

}  // namespace
