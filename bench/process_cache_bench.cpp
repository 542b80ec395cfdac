// The process cache with a full table and pids in random order, beside what one would take instead: an
// std::unordered_map with an std::list for the order of use; and beside the copy of one record, below which
// no answer can be.
//
// Records are as /proc gives them: a path, a working directory, a command line; the variants with an
// environment have 30 variables. What goes in is made before the clock starts, and what comes out goes into a
// fresh record, as at the event sources.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <ctime>
#include <list>
#include <memory>
#include <mutex>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "process_manager/process_cache/process_cache.h"
#include "support/fake_services.h"
#include "table.h"
#include "zym/utf.h"

namespace {

using qor::PidType;
using qor::process_manager::ProcessCache;
using EventInfo = ProcessCache::EventInfo;
using Info = ProcessCache::ProcessInformation;

constexpr std::size_t kCapacity = ProcessCache::kServerCapacity;
constexpr std::size_t kBatch = 1000;
constexpr std::int64_t kRetention = 10'000'000;
constexpr PidType kLargestPid = 4'194'304;  // PID_MAX_LIMIT of a 64-bit kernel

zym::types::string16_t Wide(const std::string& text) {
  return zym::Utf8ToUtf16(text).value();
}

Info MakeRecord(PidType pid, PidType parentPid, bool withEnvironment) {
  Info info;
  info.pid = pid;
  info.parentPid = parentPid;
  info.sessionId = pid;
  info.startTime = zym::datetime::kUnixEpoch + pid;
  info.imagePath = Wide("/usr/lib/x86_64-linux-gnu/worker-" + std::to_string(pid));
  info.workingDirectory = Wide("/var/lib/service/instance-" + std::to_string(pid));
  info.commandLine = std::make_shared<const zym::types::string16_t>(
      Wide("/usr/lib/x86_64-linux-gnu/worker-" + std::to_string(pid) +
           " --config=/etc/service/worker.conf --socket=/run/service/worker.sock --threads=4 --verbose"));
  info.state = qor::kCreated;
  info.realUserId = 1000;
  info.effectiveUserId = 1000;
  info.realGroupId = 1000;
  info.effectiveGroupId = 1000;
  info.mountNamespaceId = 4026531841;
  if (withEnvironment)
    for (int i = 0; i < 30; ++i)
      info.environment.emplace_back("SERVICE_VARIABLE_" + std::to_string(i) + "=/usr/share/service/data");
  return info;
}

// Distinct pids in random order, the same in every run.
std::vector<PidType> RandomPids(std::size_t count) {
  std::vector<PidType> pids(kLargestPid - 2);
  std::iota(pids.begin(), pids.end(), 2U);
  std::mt19937 engine(7);
  std::vector<PidType> result;
  std::ranges::sample(pids, std::back_inserter(result), static_cast<std::ptrdiff_t>(count), engine);
  std::ranges::shuffle(result, engine);
  return result;
}

const std::vector<PidType>& Pids() {
  static const std::vector<PidType> pids = RandomPids(kCapacity + kBatch);
  return pids;
}

// A metrics facility that costs what a real one does: one virtual call and one relaxed addition.
class Counter : public zym::object::Ifaces<zym::telemetry::ICounter> {
 public:
  void Increment() override { m_value.fetch_add(1, std::memory_order_relaxed); }
  void Reset() override { m_value = 0; }

 private:
  std::atomic<std::uint64_t> m_value{0};
};

class MetricSource : public zym::object::Ifaces<zym::telemetry::IMetricSource> {
 public:
  zym::result_t GetTableMetrics(const char*, zym::telemetry::TableMetrics& metrics) override {
    metrics = {.size = zym::CreateObject<test_support::FakeGauge>(),
               .hits = zym::CreateObject<Counter>(),
               .misses = zym::CreateObject<Counter>()};
    return zym::ZYM_OK;
  }
};

struct Host : test_support::FakeHost {
  Host() {
    tracer->SetCeiling(zym::trace::kNotice);  // a daemon's usual level: call traces are off
    locator->Add(zym::CreateObject<MetricSource>(), zym::telemetry::IMetricSource::kIid);
  }
};

// A cache whose live table is full of processes that were read from /proc.
struct FullCache {
  FullCache(Host& host, bool withEnvironment)
      : cache(zym::CreateObject<ProcessCache>(host.locator.get(), kRetention)) {
    for (std::size_t i = 0; i < kCapacity; ++i) {
      Info info = MakeRecord(Pids()[i], Pids()[i / 2], withEnvironment);
      cache->Update(info);
    }
  }
  zym::intrusive_ptr<ProcessCache> cache;
};

// The pids of one batch: spread over the table, not in the order of their insertion.
std::vector<PidType> Batch(std::size_t seed) {
  std::vector<PidType> batch(Pids().begin(), Pids().begin() + kCapacity);
  std::mt19937 engine(static_cast<std::uint32_t>(seed));
  std::ranges::shuffle(batch, engine);
  batch.resize(kBatch);
  return batch;
}

// Seconds of this thread on a processor: others that run on the machine don't count.
double ThreadSeconds() {
  std::timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Runs `operation(i)` for a batch, between clocks.
template <class Operation>
void TimeBatch(benchmark::State& state, double& total, Operation operation) {
  const double begin = ThreadSeconds();
  for (std::size_t i = 0; i < kBatch; ++i) operation(i);
  const double seconds = ThreadSeconds() - begin;
  total += seconds;
  state.SetIterationTime(seconds);
}

void Report(benchmark::State& state, double total) {
  state.counters["ns/op"] = total * 1e9 / (static_cast<double>(state.iterations()) * kBatch);
}

void BM_Cache_Get(benchmark::State& state) {
  Host host;
  const FullCache full(host, state.range(0) != 0);
  double total = 0;
  std::size_t seed = 0;
  for (auto _ : state) {
    const std::vector<PidType> pids = Batch(seed++);
    std::vector<Info> out(kBatch);
    bool all = true;
    TimeBatch(state, total,
              [&](std::size_t i) { all &= full.cache->Get(static_cast<pid_t>(pids[i]), out[i]); });
    if (!all) state.SkipWithError("a process is missing");
  }
  Report(state, total);
}

// Every fork evicts the coldest entry.
void BM_Cache_OnFork(benchmark::State& state) {
  Host host;
  double total = 0;
  std::size_t seed = 0;
  for (auto _ : state) {
    const FullCache full(host, false);
    const std::vector<PidType> parents = Batch(seed++);
    std::vector<Info> in;
    for (std::size_t i = 0; i < kBatch; ++i)
      in.push_back(MakeRecord(Pids()[kCapacity + i], parents[i], state.range(0) != 0));
    std::vector<EventInfo> create(kBatch);
    TimeBatch(state, total, [&](std::size_t i) { full.cache->OnFork(std::move(in[i]), create[i]); });
  }
  Report(state, total);
}

void BM_Cache_OnExec(benchmark::State& state) {
  Host host;
  double total = 0;
  std::size_t seed = 0;
  for (auto _ : state) {
    const FullCache full(host, state.range(0) != 0);
    const std::vector<PidType> pids = Batch(seed++);
    std::vector<Info> in;
    for (const PidType pid : pids) in.push_back(MakeRecord(pid, pids[0], state.range(0) != 0));
    std::vector<EventInfo> exit(kBatch);
    std::vector<EventInfo> create(kBatch);
    TimeBatch(state, total, [&](std::size_t i) { full.cache->OnExec(std::move(in[i]), exit[i], create[i]); });
  }
  Report(state, total);
}

void BM_Cache_OnExit(benchmark::State& state) {
  Host host;
  double total = 0;
  std::size_t seed = 0;
  for (auto _ : state) {
    const FullCache full(host, state.range(0) != 0);
    const std::vector<PidType> pids = Batch(seed++);
    std::vector<EventInfo> exit(kBatch);
    TimeBatch(state, total, [&](std::size_t i) { full.cache->OnExit(static_cast<pid_t>(pids[i]), exit[i]); });
  }
  Report(state, total);
}

// The part of an exit that the dispatcher's thread does: the entry goes, a dead record comes.
void BM_Cache_OnExitProcess(benchmark::State& state) {
  Host host;
  double total = 0;
  std::size_t seed = 0;
  for (auto _ : state) {
    const FullCache full(host, false);
    const std::vector<PidType> pids = Batch(seed++);
    std::vector<EventInfo> exit(kBatch);
    for (std::size_t i = 0; i < kBatch; ++i) {
      EventInfo create;
      full.cache->OnFork(MakeRecord(pids[i], pids[0], false), create);
      full.cache->OnExit(static_cast<pid_t>(pids[i]), exit[i]);
    }
    TimeBatch(state, total, [&](std::size_t i) { full.cache->OnExitProcess(exit[i]); });
  }
  Report(state, total);
}

// A process that has replaced itself so often, reported by the kernel or only announced.
void RunExecs(ProcessCache& cache, std::size_t count, bool reported) {
  constexpr PidType kPid = 4242;
  EventInfo create;
  cache.OnFork(MakeRecord(kPid, 1, false), create);
  for (std::size_t i = 0; i < count; ++i) {
    EventInfo exit;
    if (reported)
      cache.OnExec(MakeRecord(kPid, 1, false), exit, create);
    else
      cache.OnExecPerm(MakeRecord(kPid, 1, false), exit, create);
  }
}

// The newest image is looked for in an entry with many. Each began in a second of its own, so that no other
// has its unique pid.
void BM_Cache_GetByUniquePid(benchmark::State& state) {
  Host host;
  auto surroundings = qor::process_manager::ProcessCacheSurroundings::Real();
  surroundings.seconds = [second = std::time_t{0}]() mutable { return ++second; };
  const auto cache = zym::CreateObject<ProcessCache>(host.locator.get(), kRetention, std::move(surroundings));
  RunExecs(*cache, static_cast<std::size_t>(state.range(0)), state.range(1) != 0);
  Info newest;
  if (!cache->Get(4242, newest)) state.SkipWithError("the process is missing");
  double total = 0;
  for (auto _ : state) {
    std::vector<Info> out(kBatch);
    TimeBatch(state, total, [&](std::size_t i) { cache->GetByUniquePid(newest.uniquePid, out[i]); });
  }
  Report(state, total);
}

// In heap blocks and in mappings of their own.
double BytesInUse() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

void BM_Cache_BytesPerEntry(benchmark::State& state) {
  Host host;
  double bytes = 0;
  double empty = 0;
  for (auto _ : state) {
    const auto before = BytesInUse();
    const auto cache = zym::CreateObject<ProcessCache>(host.locator.get(), kRetention);
    empty = BytesInUse() - before;
    for (std::size_t i = 0; i < kCapacity; ++i) {
      Info info = MakeRecord(Pids()[i], Pids()[i / 2], state.range(0) != 0);
      cache->Update(info);
    }
    bytes = BytesInUse() - before;
  }
  const auto capacity = static_cast<double>(kCapacity);
  state.counters["empty cache, bytes"] = empty;
  state.counters["bytes/entry"] = bytes / capacity;
  const auto before = BytesInUse();
  std::vector<Info> records;
  records.reserve(kCapacity);
  for (std::size_t i = 0; i < kCapacity; ++i)
    records.push_back(MakeRecord(Pids()[i], Pids()[i / 2], state.range(0) != 0));
  const double plain = BytesInUse() - before;
  state.counters["of these the record"] = plain / capacity;
}

void BM_Cache_BytesOfManyImages(benchmark::State& state) {
  Host host;
  const auto cache = zym::CreateObject<ProcessCache>(host.locator.get(), kRetention);
  const double before = BytesInUse();
  for (auto _ : state) RunExecs(*cache, static_cast<std::size_t>(state.range(0)), true);
  state.counters["bytes"] = BytesInUse() - before;
}

// --- the baselines ---------------------------------------------------------------------------------------

// What one would write first: a map into a list in the order of use.
class MapAndList {
 public:
  bool Get(PidType pid, Info& info) {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_index.find(pid);
    if (found == m_index.end()) return false;
    m_order.splice(m_order.begin(), m_order, found->second);
    info = found->second->second;
    return true;
  }
  void Put(PidType pid, Info&& info, Info& out) {
    const std::scoped_lock lock(m_mutex);
    if (m_index.size() >= kCapacity) {
      m_index.erase(m_order.back().first);
      m_order.pop_back();
    }
    m_order.emplace_front(pid, std::move(info));
    m_index[pid] = m_order.begin();
    out = m_order.front().second;
  }

 private:
  using Order = std::list<std::pair<PidType, Info>>;
  std::mutex m_mutex;  // guards all below
  Order m_order;
  std::unordered_map<PidType, Order::iterator> m_index;
};

void Fill(MapAndList& table, bool withEnvironment) {
  Info out;
  for (std::size_t i = 0; i < kCapacity; ++i)
    table.Put(Pids()[i], MakeRecord(Pids()[i], Pids()[i / 2], withEnvironment), out);
}

void BM_MapAndList_Get(benchmark::State& state) {
  MapAndList table;
  Fill(table, state.range(0) != 0);
  double total = 0;
  std::size_t seed = 0;
  for (auto _ : state) {
    const std::vector<PidType> pids = Batch(seed++);
    std::vector<Info> out(kBatch);
    TimeBatch(state, total, [&](std::size_t i) { table.Get(pids[i], out[i]); });
  }
  Report(state, total);
}

// Stores and answers one record; a fork of the cache does that, links the parent, numbers and queues.
void BM_MapAndList_Put(benchmark::State& state) {
  double total = 0;
  for (auto _ : state) {
    MapAndList table;
    Fill(table, false);
    std::vector<Info> in;
    for (std::size_t i = 0; i < kBatch; ++i)
      in.push_back(MakeRecord(Pids()[kCapacity + i], Pids()[i], state.range(0) != 0));
    std::vector<Info> out(kBatch);
    TimeBatch(state, total, [&](std::size_t i) { table.Put(in[i].pid, std::move(in[i]), out[i]); });
  }
  Report(state, total);
}

// The floor: the copy of records that lie in random order over as much memory.
void BM_CopyOfTheRecord(benchmark::State& state) {
  std::vector<std::unique_ptr<Info>> records;
  for (std::size_t i = 0; i < kCapacity; ++i)
    records.push_back(std::make_unique<Info>(MakeRecord(Pids()[i], 1, state.range(0) != 0)));
  std::mt19937 engine(3);
  double total = 0;
  for (auto _ : state) {
    std::ranges::shuffle(records, engine);
    std::vector<Info> out(kBatch);
    TimeBatch(state, total, [&](std::size_t i) { out[i] = *records[i]; });
  }
  Report(state, total);
}

// The same text in std::u16string: what the allocator of zym's containers costs.
void BM_CopyOfAString16(benchmark::State& state) {
  const zym::types::string16_t text = Wide("/usr/lib/x86_64-linux-gnu/worker-1000");
  for (auto _ : state) {
    zym::types::string16_t copy = text;
    benchmark::DoNotOptimize(copy);
  }
}
void BM_CopyOfAStdU16String(benchmark::State& state) {
  const std::u16string text = u"/usr/lib/x86_64-linux-gnu/worker-1000";
  for (auto _ : state) {
    std::u16string copy = text;
    benchmark::DoNotOptimize(copy);
  }
}

// 0: records without an environment; 1: with one.
void Variants(benchmark::internal::Benchmark* b) {
  b->ArgName("env")->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
}
BENCHMARK(BM_Cache_Get)->Apply(Variants);
BENCHMARK(BM_MapAndList_Get)->Apply(Variants);
BENCHMARK(BM_CopyOfTheRecord)->Apply(Variants);
BENCHMARK(BM_Cache_OnFork)->Apply(Variants)->Iterations(40);
BENCHMARK(BM_MapAndList_Put)->Apply(Variants)->Iterations(40);
BENCHMARK(BM_Cache_OnExec)->Apply(Variants)->Iterations(40);
BENCHMARK(BM_Cache_OnExit)->Apply(Variants)->Iterations(40);
BENCHMARK(BM_Cache_OnExitProcess)->Arg(0)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(40);
BENCHMARK(BM_Cache_BytesPerEntry)->ArgName("env")->Arg(0)->Arg(1)->Iterations(1);
BENCHMARK(BM_Cache_GetByUniquePid)
    ->ArgNames({"execs", "reported"})
    ->ArgsProduct({{1, 10'000, 32'700}, {0, 1}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Cache_BytesOfManyImages)->ArgName("execs")->Arg(1)->Arg(4000)->Arg(10'000)->Iterations(1);
BENCHMARK(BM_CopyOfAString16);
BENCHMARK(BM_CopyOfAStdU16String);

// What an operation may cost with the table full, in nanoseconds.
constexpr double kAllowed = 1500;

bench::Row Operation(const char* what, const char* ours, const char* baseline, const char* baselineIs) {
  return {.what = what,
          .unit = "ns",
          .ours = ours,
          .baseline = baseline,
          .baselineIs = baselineIs,
          .allowed = kAllowed};
}

const bench::Rows g_rows(
    Operation("Get, the table full", "BM_Cache_Get/env:0/manual_time: ns/op",
              "BM_MapAndList_Get/env:0/manual_time: ns/op", "unordered_map and list"),
    Operation("OnFork, evicting", "BM_Cache_OnFork/env:0/iterations:40/manual_time: ns/op",
              "BM_MapAndList_Put/env:0/iterations:40/manual_time: ns/op", "unordered_map and list"),
    Operation("OnExec", "BM_Cache_OnExec/env:0/iterations:40/manual_time: ns/op",
              "BM_CopyOfTheRecord/env:0/manual_time: ns/op", "one copy of a record"),
    Operation("OnExit", "BM_Cache_OnExit/env:0/iterations:40/manual_time: ns/op",
              "BM_CopyOfTheRecord/env:0/manual_time: ns/op", "one copy of a record"),
    bench::Row{.what = "an entry at capacity, its strings too",
               .unit = "bytes",
               .ours = "BM_Cache_BytesPerEntry/env:0/iterations:1: bytes/entry",
               .baseline = "BM_Cache_BytesPerEntry/env:0/iterations:1: of these the record",
               .baselineIs = "the record alone"});

}  // namespace
