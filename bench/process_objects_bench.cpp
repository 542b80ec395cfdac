// A snapshot of 2,000 processes with everything that can be read of each, beside a bare reader of the same
// files and ps; and a lookup that the cache answers.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "process_manager/process/process_manager.h"
#include "process_manager/process_cache/process_cache.h"
#include "process_manager/procfs/proc_parser.h"
#include "support/actor.h"
#include "support/fake_exclusions.h"
#include "support/fake_services.h"
#include "table.h"
#include "zym/prefix_tracer.h"

namespace {

using namespace qor::process_manager;
using system_interceptors::process_manager::IProcessControl;
using system_interceptors::process_manager::IProcessInformation;
using system_interceptors::process_manager::IProcessInformationEnumerator;

constexpr int kParents = 8;
constexpr int kChildrenOfEach = 250;
constexpr std::int64_t kRetention = 10'000'000;

// Nanoseconds of this thread on a processor: others that run on the machine don't count.
double ThreadTime() {
  std::timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// 2,000 sleeping processes, which are collected at the end.
class Crowd {
 public:
  Crowd() {
    for (int i = 0; i < kParents; ++i)
      m_parents.push_back(std::make_unique<test_support::Actor>(
          std::vector<std::string>{"brood", std::to_string(kChildrenOfEach)}));
    for (const auto& parent : m_parents) parent->HearPid();
  }
  ~Crowd() {
    for (const auto& parent : m_parents) parent->GoOn();
    for (const auto& parent : m_parents) parent->Wait();
  }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

 private:
  std::vector<std::unique_ptr<test_support::Actor>> m_parents;
};

// A host whose tracer takes failures only, as one does in production.
struct Host {
  Host() {
    host.tracer->SetCeiling(zym::trace::kFailure);
    host.locator->Add(zym::trace::WithPrefix(zym::intrusive_ptr<zym::ITracer>(host.tracer), "Bench"),
                      zym::ITracer::kIid);
    host.locator->Add(zym::CreateObject<qor::procfs::ProcParser>(host.locator.get()),
                      qor::procfs::IParser::kIid);
    host.locator->Add(zym::CreateObject<test_support::FakeAppSettingsProvider>(),
                      qor::IAppSettingsProvider::kIid);
    host.locator->Add(zym::CreateObject<test_support::FakePathMatcherFactory>(),
                      qor::IPathMatcherFactory::kIid);
    ForgetAllProcesses();
    manager = zym::CreateObject<ProcessManager>(host.locator.get());
  }
  void ForgetAllProcesses() {
    cache = zym::CreateObject<ProcessCache>(host.locator.get(), kRetention);
    host.locator->Add(cache, IProcessInfoProvider::kIid);
  }

  test_support::FakeHost host;
  zym::intrusive_ptr<ProcessCache> cache;
  zym::intrusive_ptr<ProcessManager> manager;
};

// What any reader of these facts must ask the kernel for, of each process: the directory's owner and time,
// stat, cwd, the mount namespace, exe, cmdline, status and environ. Plain C, nothing looked at. Gives the
// number of processes.
class BareReader {
 public:
  int Run() {
    int processes = 0;
    DIR* const directory = ::opendir("/proc");
    if (directory == nullptr) std::abort();
    while (const dirent* const entry = ::readdir(directory)) {
      if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0) continue;
      ++processes;
      m_pid = entry->d_name;
      struct stat status {};
      ::stat(Path(""), &status);
      Read("/stat");
      m_sink += ::readlink(Path("/cwd"), m_buffer, sizeof(m_buffer));
      ::stat(Path("/ns/mnt"), &status);
      m_sink += ::readlink(Path("/exe"), m_buffer, sizeof(m_buffer));
      Read("/cmdline");
      Read("/status");
      Read("/environ");
    }
    ::closedir(directory);
    benchmark::DoNotOptimize(m_sink);
    return processes;
  }

 private:
  const char* Path(const char* name) {
    std::snprintf(m_path, sizeof(m_path), "/proc/%s%s", m_pid, name);
    return m_path;
  }
  // To the end, as a file of unknown size is read.
  void Read(const char* name) {
    const int fd = ::open(Path(name), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    ssize_t count = 0;
    while ((count = ::read(fd, m_buffer, sizeof(m_buffer))) > 0) m_sink += count;
    ::close(fd);
  }

  const char* m_pid = "";
  char m_path[300] = {};
  char m_buffer[1 << 17] = {};
  ssize_t m_sink = 0;
};

// Nanoseconds of processor time that ps takes for what it has of the same; 0: there is no ps.
double TimeOfPs() {
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  const char* const arguments[] = {"ps", "-eo", "pid,ppid,sid,ruid,euid,rgid,egid,lstart,stat,args", "-ww",
                                   nullptr};
  pid_t pid = -1;
  const int error =
      ::posix_spawnp(&pid, "ps", &actions, nullptr, const_cast<char* const*>(arguments), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return 0;
  int status = 0;
  rusage usage{};
  if (::wait4(pid, &status, 0, &usage) != pid || status != 0) return 0;
  const auto nanoseconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_usec) * 1e3;
  };
  return nanoseconds(usage.ru_utime) + nanoseconds(usage.ru_stime);
}

// Each in turn, so that what else the machine does hits all alike.
void BM_Snapshot(benchmark::State& state) {
  const Crowd crowd;
  Host host;
  const auto bareReader = std::make_unique<BareReader>();
  const auto snapshot = [&] {
    const double begin = ThreadTime();
    zym::intrusive_ptr<IProcessInformationEnumerator> enumerator;
    if (host.manager->Enumerate(enumerator.Ref()) != zym::ZYM_OK)
      state.SkipWithError("the processes can't be listed");
    return ThreadTime() - begin;  // without the end of the objects
  };
  bareReader->Run();  // the kernel's entries of all directories are there
  double bare = 0;
  double ours = 0;
  double known = 0;
  double ps = 0;
  double processes = 0;
  for (auto _ : state) {
    const double begin = ThreadTime();
    processes += bareReader->Run();
    bare += ThreadTime() - begin;
    host.ForgetAllProcesses();
    ours += snapshot();
    known += snapshot();
    ps += TimeOfPs();
  }
  state.counters["processes"] = processes / static_cast<double>(state.iterations());
  state.counters["bare"] = bare / processes;
  state.counters["ours"] = ours / processes;
  state.counters["known"] = known / processes;
  if (ps > 0) state.counters["ps"] = ps / processes;
}
BENCHMARK(BM_Snapshot)->Iterations(5);

qor::PidType Self() {
  return static_cast<qor::PidType>(::getpid());
}

// What the two below ask, and no object made of the answer.
void BM_GetOfTheCache(benchmark::State& state) {
  Host host;
  zym::intrusive_ptr<IProcessInformation> information;
  host.manager->GetInformation(Self(), information.Ref());
  for (auto _ : state) {
    process_cache::ProcessInformation known;
    if (!host.cache->Get(::getpid(), known)) state.SkipWithError("the process isn't known");
    benchmark::DoNotOptimize(known);
  }
}
BENCHMARK(BM_GetOfTheCache);

void BM_InformationOfAKnownProcess(benchmark::State& state) {
  Host host;
  for (auto _ : state) {
    zym::intrusive_ptr<IProcessInformation> information;
    if (host.manager->GetInformation(Self(), information.Ref()) != zym::ZYM_OK)
      state.SkipWithError("the process can't be looked at");
  }
}
BENCHMARK(BM_InformationOfAKnownProcess);

void BM_ControlOfAKnownProcess(benchmark::State& state) {
  Host host;
  for (auto _ : state) {
    zym::intrusive_ptr<IProcessControl> control;
    if (host.manager->GetControl(static_cast<qor::PidType>(::getppid()), control.Ref()) != zym::ZYM_OK)
      state.SkipWithError("the process can't be looked at");
  }
}
BENCHMARK(BM_ControlOfAKnownProcess);

const bench::Rows g_rows(bench::Row{.what = "a process of a snapshot",
                                    .unit = "us",
                                    .ours = "BM_Snapshot/iterations:5: ours",
                                    .scale = 1000,
                                    .baseline = "BM_Snapshot/iterations:5: bare",
                                    .baselineIs = "a bare reader of the same files",
                                    .allowedRatio = 1.5,
                                    .allowed = 60},
                         bench::Row{.what = "  ps of fewer fields",
                                    .unit = "us",
                                    .ours = "BM_Snapshot/iterations:5: ps",
                                    .scale = 1000,
                                    .baseline = "BM_Snapshot/iterations:5: bare",
                                    .baselineIs = "the bare reader"},
                         bench::Row{.what = "  of one that is known in full",
                                    .unit = "us",
                                    .ours = "BM_Snapshot/iterations:5: known",
                                    .scale = 1000},
                         bench::Row{.what = "GetInformation of a known process",
                                    .unit = "ns",
                                    .ours = "BM_InformationOfAKnownProcess",
                                    .baseline = "BM_GetOfTheCache",
                                    .baselineIs = "Get of the cache"},
                         bench::Row{.what = "GetControl of a known process",
                                    .unit = "ns",
                                    .ours = "BM_ControlOfAKnownProcess",
                                    .baseline = "BM_GetOfTheCache",
                                    .baselineIs = "Get of the cache"});

}  // namespace
