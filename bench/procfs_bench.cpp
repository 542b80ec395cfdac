// Reading a process, beside the bare system calls that the read can't do without; and the texts that are
// parsed for it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "allocation_counter.h"
#include "process_manager/process/tools.h"
#include "process_manager/procfs/proc_parser.h"
#include "process_manager/procfs/procfs_text.h"
#include "support/child.h"
#include "support/fake_services.h"
#include "table.h"
#include "zym/utf.h"

namespace {

// A host whose tracer takes failures only, as one does in production.
struct Host {
  Host() { host.tracer->SetCeiling(zym::trace::kFailure); }

  test_support::FakeHost host;
  zym::intrusive_ptr<zym::ITracer> tracer =
      zym::trace::WithPrefix(zym::intrusive_ptr<zym::ITracer>(host.tracer), "Bench");
  zym::intrusive_ptr<qor::procfs::ProcParser> parser =
      zym::CreateObject<qor::procfs::ProcParser>(host.locator.get());
};

void ReadOnce(const char* path, char* buffer, std::size_t size) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) std::abort();
  if (read(fd, buffer, size) < 0) std::abort();
  close(fd);
}

// What any reader of a process must ask the kernel for: the directory's owner and time, stat, cwd, the mount
// namespace, exe and cmdline. Plain C, paths made beforehand, nothing looked at.
class BareCalls {
 public:
  explicit BareCalls(pid_t pid) {
    const char* const names[] = {"", "/stat", "/cwd", "/ns/mnt", "/exe", "/cmdline"};
    for (std::size_t i = 0; i < std::size(names); ++i)
      std::snprintf(m_paths[i], sizeof(m_paths[i]), "/proc/%d%s", static_cast<int>(pid), names[i]);
  }

  void Run() {
    struct stat status {};
    if (stat(m_paths[0], &status) != 0) std::abort();
    ReadOnce(m_paths[1], m_buffer, sizeof(m_buffer));
    if (readlink(m_paths[2], m_buffer, sizeof(m_buffer)) < 0) std::abort();
    if (stat(m_paths[3], &status) != 0) std::abort();
    if (readlink(m_paths[4], m_buffer, sizeof(m_buffer)) < 0) std::abort();
    ReadOnce(m_paths[5], m_buffer, sizeof(m_buffer));
    benchmark::DoNotOptimize(m_buffer);
  }

 private:
  char m_paths[6][64];
  char m_buffer[4096];
};

void BM_BareSystemCalls(benchmark::State& state) {
  BareCalls calls(getpid());
  for (auto _ : state) calls.Run();
}
BENCHMARK(BM_BareSystemCalls);

void BM_GetProcessInfo(benchmark::State& state) {
  Host host;
  const auto pid = static_cast<qor::PidType>(getpid());
  qor::process_manager::process_cache::ProcessInformation info;
  const std::uint64_t before = bench::Allocations();
  for (auto _ : state)
    if (qor::process_manager::GetProcessInfo(host.tracer.get(), host.parser.get(), pid, info) != 0)
      state.SkipWithError("the process can't be read");
  const std::uint64_t allocations = bench::Allocations() - before;
  state.counters["operator new"] = static_cast<double>(allocations) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_GetProcessInfo);

void BM_GetFullProcessInfo(benchmark::State& state) {
  Host host;
  const auto pid = static_cast<qor::PidType>(getpid());
  qor::process_manager::process_cache::ProcessInformation info;
  for (auto _ : state)
    if (qor::process_manager::GetFullProcessInfo(host.tracer.get(), host.parser.get(), pid, info) != 0)
      state.SkipWithError("the process can't be read");
}
BENCHMARK(BM_GetFullProcessInfo);

// Nanoseconds of this thread on a processor: others that run on the machine don't count.
double ThreadTime() {
  std::timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// Both in turns, so that what else the machine does hits both alike; with the reader's own descriptors open
// for both.
void BM_GetProcessInfoToBareSystemCalls(benchmark::State& state) {
  Host host;
  const auto pid = static_cast<qor::PidType>(getpid());
  BareCalls calls(getpid());
  qor::process_manager::process_cache::ProcessInformation info;
  constexpr int kTurn = 16;
  double bare = 0;
  double ours = 0;
  for (auto _ : state) {
    const double begin = ThreadTime();
    for (int i = 0; i < kTurn; ++i) calls.Run();
    const double middle = ThreadTime();
    for (int i = 0; i < kTurn; ++i)
      benchmark::DoNotOptimize(
          qor::process_manager::GetProcessInfo(host.tracer.get(), host.parser.get(), pid, info));
    const double end = ThreadTime();
    bare += middle - begin;
    ours += end - middle;
  }
  const double reads = static_cast<double>(state.iterations()) * kTurn;
  state.counters["bare"] = bare / reads;
  state.counters["ours"] = ours / reads;
  state.counters["ratio"] = ours / bare;
}
BENCHMARK(BM_GetProcessInfoToBareSystemCalls);

// The first look at a process makes the kernel's entries of its directory, which is most of what a read at a
// fork costs. Each process is new, and read once, by the one or by the other.
void BM_FirstReadOfAProcess(benchmark::State& state) {
  Host host;
  const auto self = static_cast<qor::PidType>(getpid());
  qor::process_manager::process_cache::ProcessInformation info;
  double bare = 0;
  double ours = 0;
  for (auto _ : state)
    for (const bool isOurs : {false, true}) {
      const test_support::Child child = test_support::Child::Forked();
      BareCalls calls(static_cast<pid_t>(child.Pid()));
      // The fork made this program's pages shared: what the reads write to must not be copied while they run.
      BareCalls(getpid()).Run();
      qor::process_manager::GetProcessInfo(host.tracer.get(), host.parser.get(), self, info);
      const double begin = ThreadTime();
      if (isOurs)
        benchmark::DoNotOptimize(
            qor::process_manager::GetProcessInfo(host.tracer.get(), host.parser.get(), child.Pid(), info));
      else
        calls.Run();
      (isOurs ? ours : bare) += ThreadTime() - begin;
    }
  const auto reads = static_cast<double>(state.iterations());
  state.counters["bare"] = bare / reads;
  state.counters["ours"] = ours / reads;
  state.counters["ratio"] = ours / bare;
}
BENCHMARK(BM_FirstReadOfAProcess)->Iterations(1000);

void BM_ParseStat(benchmark::State& state) {
  const std::string line =
      "7474 (cat) R 7466 7466 23845 0 -1 4194304 101 0 0 0 0 0 0 0 20 0 1 0 724578 3133440 408 "
      "18446744073709551615 94025724014592 94025724034473 140731436950336 0 0 0 0 0 0 0 0 0 17 1";
  qor::procfs::Stat stat;
  for (auto _ : state) benchmark::DoNotOptimize(qor::procfs::ParseStat(line, stat));
}
BENCHMARK(BM_ParseStat);

void BM_ParseMaps(benchmark::State& state) {
  std::string text;
  for (int i = 0; i < 1000; ++i)
    text += "7f12" + std::to_string(10000000 + i * 4096) + "-7f12" +
            std::to_string(10000000 + i * 4096 + 4095) +
            " r-xp 00002000 fe:00 247498                     /usr/lib/x86_64-linux-gnu/libc.so.6\n";
  for (auto _ : state) {
    qor::procfs::Maps maps;
    qor::procfs::ParseMaps(text, maps);
    if (maps.size() != 1000) state.SkipWithError("a mapping was missed");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ParseMaps);

// A command line of 128 KiB.
void BM_Utf8ToUtf16(benchmark::State& state, std::string_view piece) {
  std::string text;
  while (text.size() < 128 * 1024) text += piece;
  for (auto _ : state) benchmark::DoNotOptimize(zym::Utf8ToUtf16(text));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK_CAPTURE(BM_Utf8ToUtf16, ascii, "--option=value /usr/share/doc ");
BENCHMARK_CAPTURE(BM_Utf8ToUtf16, mixed, "--\u00fcber=\u65e5\u672c\u8a9e ");

const bench::Rows g_rows(bench::Row{.what = "GetProcessInfo",
                                    .unit = "us",
                                    .ours = "BM_GetProcessInfoToBareSystemCalls: ours",
                                    .scale = 1000,
                                    .baseline = "BM_GetProcessInfoToBareSystemCalls: bare",
                                    .baselineIs = "the bare system calls",
                                    .allowedRatio = 1.3},
                         bench::Row{.what = "  of a process never read before",
                                    .unit = "us",
                                    .ours = "BM_FirstReadOfAProcess/iterations:1000: ours",
                                    .scale = 1000,
                                    .baseline = "BM_FirstReadOfAProcess/iterations:1000: bare",
                                    .baselineIs = "the bare system calls",
                                    .allowedRatio = 1.3});

}  // namespace
