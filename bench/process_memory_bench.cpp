// Reading 1 GiB of another process, beside a bare loop of the same reads in the same run.
// bench/peers/memread.c has the other ways to read.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "process_manager/memory/process_memory_object.h"
#include "process_manager/procfs/proc_parser.h"
#include "qor_common/unique_fd.h"
#include "support/fake_process_control.h"
#include "support/fake_services.h"
#include "support/memory_actor.h"
#include "table.h"

namespace {

using Clock = std::chrono::steady_clock;
using qor::process_memory_manager::ProcessMemory;

constexpr std::size_t kSize = 1 << 30;

// Every page of the process has been written, and every page of the buffer: what is measured is the copying.
struct Subject {
  Subject() {
    host.tracer->SetCeiling(zym::trace::kFailure);
    host.locator->Add(zym::CreateObject<qor::procfs::ProcParser>(host.locator.get()));
    const auto control = zym::CreateObject<test_support::FakeProcessControl>(actor.Pid());
    memory = ProcessMemory::Create(host.locator.get(), control.get(), false);
    address = actor.Get("large").address;
  }

  // With a kernel that is asked anew for each range, as ReadMemory must.
  void ReadByModule(std::size_t chunk) {
    for (std::size_t offset = 0; offset < kSize; offset += chunk)
      if (memory->ReadMemory(address + offset, {buffer.data() + offset, buffer.data() + offset + chunk}) !=
          zym::ZYM_OK)
        std::abort();
  }
  // The floor: the file is opened once, and pread(2) does the rest.
  void ReadByFile(std::size_t chunk) {
    const qor::UniqueFd file(::open(Path().c_str(), O_RDONLY | O_CLOEXEC));
    for (std::size_t offset = 0; offset < kSize; offset += chunk) Pread(file.Get(), offset, chunk);
  }
  // The same reads as the module's: the file is opened for each.
  void ReadByFileOpenedForEach(std::size_t chunk) {
    for (std::size_t offset = 0; offset < kSize; offset += chunk) {
      const qor::UniqueFd file(::open(Path().c_str(), O_RDONLY | O_CLOEXEC));
      Pread(file.Get(), offset, chunk);
    }
  }

  test_support::FakeHost host;
  test_support::MemoryActor actor{kSize, 4096};
  std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(kSize, 1);
  zym::intrusive_ptr<ProcessMemory> memory;
  std::uint64_t address = 0;

 private:
  std::string Path() const { return "/proc/" + std::to_string(actor.Pid()) + "/mem"; }
  void Pread(int fd, std::size_t offset, std::size_t chunk) {
    if (::pread64(fd, buffer.data() + offset, chunk, static_cast<off64_t>(address + offset)) !=
        static_cast<ssize_t>(chunk))
      std::abort();
  }
};

template <class Read>
double Seconds(Read read) {
  const auto begin = Clock::now();
  read();
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

// The gibibyte by the module and by each floor, in turns.
void BM_ReadMemory(benchmark::State& state) {
  static Subject subject;
  const auto chunk = static_cast<std::size_t>(state.range(0));
  double bare = 0;
  double ours = 0;
  double opened = 0;
  for (auto _ : state) {
    bare += Seconds([&] { subject.ReadByFile(chunk); });
    ours += Seconds([&] { subject.ReadByModule(chunk); });
    opened += Seconds([&] { subject.ReadByFileOpenedForEach(chunk); });
  }
  const auto rounds = static_cast<double>(state.iterations());
  state.counters["bare"] = bare / rounds;
  state.counters["ours"] = ours / rounds;
  state.counters["opened"] = opened / rounds;
}
BENCHMARK(BM_ReadMemory)
    ->Arg(4 << 10)
    ->Arg(64 << 10)
    ->Arg(1 << 20)
    ->Arg(1 << 30)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

constexpr const char* kOneOpen = "pread(2) of a file opened once";
constexpr const char* kAnOpenEach = "pread(2), the file opened for each";
constexpr double kPerMillisecond = 1e-3;

const bench::Rows g_rows(bench::Row{.what = "1 GiB of another process at once",
                                    .unit = "ms",
                                    .ours = "BM_ReadMemory/1073741824/iterations:1: ours",
                                    .scale = kPerMillisecond,
                                    .baseline = "BM_ReadMemory/1073741824/iterations:1: bare",
                                    .baselineIs = kOneOpen,
                                    .allowedRatio = 1.25},
                         bench::Row{.what = "  in ranges of 1 MiB",
                                    .unit = "ms",
                                    .ours = "BM_ReadMemory/1048576/iterations:1: ours",
                                    .scale = kPerMillisecond,
                                    .baseline = "BM_ReadMemory/1048576/iterations:1: bare",
                                    .baselineIs = kOneOpen,
                                    .allowedRatio = 1.25},
                         bench::Row{.what = "  in ranges of 64 KiB",
                                    .unit = "ms",
                                    .ours = "BM_ReadMemory/65536/iterations:1: ours",
                                    .scale = kPerMillisecond,
                                    .baseline = "BM_ReadMemory/65536/iterations:1: opened",
                                    .baselineIs = kAnOpenEach,
                                    .allowedRatio = 1.25},
                         bench::Row{.what = "  in ranges of 4 KiB",
                                    .unit = "ms",
                                    .ours = "BM_ReadMemory/4096/iterations:1: ours",
                                    .scale = kPerMillisecond,
                                    .baseline = "BM_ReadMemory/4096/iterations:1: opened",
                                    .baselineIs = kAnOpenEach});

}  // namespace
