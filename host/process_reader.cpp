#include "host/process_reader.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <set>
#include <string>
#include <utility>

#include "host/failure.h"
#include "host/output/byte_text.h"
#include "host/proc_files.h"
#include "zym/datetime.h"

namespace pmhost {
namespace {

using namespace system_interceptors::process_manager;

constexpr std::uint32_t kKernel = 0;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

std::int64_t Nanoseconds(clockid_t clock) {
  std::timespec time{};
  ::clock_gettime(clock, &time);
  return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

// When the machine booted, in nanoseconds since 1970. The clocks can't be read at once: what is finer than a
// clock tick, in which the kernel reports the start of a process, would be noise.
std::int64_t BootTime() {
  const std::int64_t tick = kNanosecondsPerSecond / ::sysconf(_SC_CLK_TCK);
  const std::int64_t time = Nanoseconds(CLOCK_REALTIME) - Nanoseconds(CLOCK_BOOTTIME);
  return (time + tick / 2) / tick * tick;
}

}  // namespace

ProcessReader::ProcessReader(Host& host)
    : m_manager(host.GetProcessManager()), m_parser(host.GetParser()), m_bootTime(BootTime()) {}

std::optional<ListedProcess> ProcessReader::Read(std::uint32_t pid) {
  zym::intrusive_ptr<IProcessInformation> information;
  if (ZYM_SUCCEEDED(m_manager->GetInformation(pid, information.Ref()))) return Complete(*information);
  return ReadInPart(pid);
}

std::vector<ListedProcess> ProcessReader::ReadAll() {
  // Before the snapshot, so that none that begins behind it is taken for one that it left out.
  const std::vector<unsigned int> listed = ListProcesses();
  zym::intrusive_ptr<IProcessInformationEnumerator> snapshot;
  Require(m_manager->Enumerate(snapshot.Ref()), "cannot list the processes");

  std::vector<ListedProcess> processes;
  std::set<std::uint32_t> found;
  zym::intrusive_ptr<IProcessInformation> information;
  zym::result_t next = zym::ZYM_OK;
  while ((next = snapshot->Next(information.Ref())) == zym::ZYM_OK) {
    std::optional<ListedProcess> process = Complete(*information);
    if (!process) continue;
    found.insert(process->facts.pid);
    processes.push_back(std::move(*process));
  }
  Require(next, "cannot read the list of processes to its end");
  for (const std::uint32_t pid : listed) {
    if (found.contains(pid)) continue;
    if (std::optional<ListedProcess> process = Read(pid)) processes.push_back(std::move(*process));
  }
  std::ranges::sort(processes, {}, [](const ListedProcess& process) {
    return std::pair(process.facts.pid == kKernel, process.facts.pid);
  });
  return processes;
}

std::optional<ListedProcess> ProcessReader::ReadByUniquePid(std::uint64_t uniquePid) {
  constexpr std::int64_t kSlack = 1;  // seconds by which the clock may have been set in between
  zym::intrusive_ptr<IProcessInformation> information;
  std::optional<ListedProcess> process;
  if (ZYM_SUCCEEDED(m_manager->GetInformationByUniqueId(uniquePid, information.Ref())))
    process = Complete(*information);
  else
    process = ReadInPart(qor::PidOf(uniquePid));
  if (!process || process->facts.uniquePid == uniquePid) return process;
  const auto named = static_cast<std::int64_t>(uniquePid >> 32);
  const std::int64_t started =
      (process->facts.startTime.value_or(0) - zym::datetime::kUnixEpoch) / zym::datetime::kUnitsPerSecond;
  const bool wasThere = process->facts.pid != kKernel && started <= named + kSlack;
  const bool wasNamed = named <= Nanoseconds(CLOCK_REALTIME) / kNanosecondsPerSecond + kSlack;
  return wasThere && wasNamed ? std::move(process) : std::nullopt;
}

zym::datetime_t ProcessReader::StartTimeOf(const qor::procfs::Stat& stat) const {
  static const std::int64_t ticksPerSecond = ::sysconf(_SC_CLK_TCK);
  const std::int64_t sinceBoot =
      static_cast<std::int64_t>(stat.starttime) * (kNanosecondsPerSecond / ticksPerSecond);
  const std::int64_t time = m_bootTime + sinceBoot;
  return zym::datetime::FromUnix(
      {.tv_sec = time / kNanosecondsPerSecond, .tv_nsec = time % kNanosecondsPerSecond});
}

bool ProcessReader::HasEnded(const qor::procfs::Stat& stat) {
  return stat.state == 'Z' || stat.state == 'X' || stat.state == 'x';
}

std::string ProcessReader::ExplainAbsence(const std::string& what, std::uint32_t pid) {
  qor::procfs::Stat stat;
  if (ZYM_SUCCEEDED(m_parser->GetStat(pid, stat)) && HasEnded(stat))
    return what + ": it has ended already; its parent, process " + std::to_string(stat.ppid) +
           ", has yet to collect it";
  return what + ": there is no such process";
}

std::vector<unsigned int> ProcessReader::ListProcesses() {
  constexpr unsigned int kInit = 1;  // every namespace of pids has one as long as there are others
  std::vector<unsigned int> pids;
  Require(m_parser->GetProcessList(pids), "cannot list the processes");
  m_othersHidden = std::ranges::find(pids, kInit) == pids.end();
  return pids;
}

std::optional<ListedProcess> ProcessReader::Complete(IProcessInformation& information) {
  ProcessInformation known;
  Require(information.GetInformation(known), "cannot read what is known of a process");
  ListedProcess process{.facts = FromModule(known)};
  ProcessRecord& facts = process.facts;
  ReadIds(facts);
  if (facts.pid == kKernel) {
    // The file with the kernel's own command line ends with a line end.
    if (facts.commandLine.ends_with(u'\n')) facts.commandLine.pop_back();
    return process;
  }
  // A process that was replacing its image had none for a moment.
  if (facts.commandLine.empty()) facts.commandLine = DecodeBytes(ReadCommandLine(facts.pid));
  qor::procfs::Stat stat;
  if (ReachOfLiving(facts.pid, stat) == Reach::kGone) return std::nullopt;  // what is known may be half of it
  if (stat.pid == facts.pid) facts.startTime = StartTimeOf(stat);
  return process;
}

void ProcessReader::ReadIds(ProcessRecord& process) {
  qor::procfs::Creds creds;
  if (ZYM_SUCCEEDED(m_parser->GetCreds(process.pid, creds))) process.userId = creds.uid[0];
}

// kGone for one that has ended, even if its parent has yet to collect it.
Reach ProcessReader::ReachOfLiving(std::uint32_t pid, qor::procfs::Stat& stat) {
  const zym::result_t result = m_parser->GetStat(pid, stat);
  if (result == zym::ZYM_E_NOT_FOUND || (ZYM_SUCCEEDED(result) && HasEnded(stat))) return Reach::kGone;
  // The first that a process loses when it ends is its memory, and with it the link to its program; a thread
  // of the kernel never had it.
  return ReachOf(pid, stat.IsKernelThread() ? "cwd" : "exe");
}

std::optional<ListedProcess> ProcessReader::ReadInPart(std::uint32_t pid) {
  qor::procfs::Stat stat;
  const Reach reach = ReachOfLiving(pid, stat);
  if (reach == Reach::kGone) return std::nullopt;
  ListedProcess process{.facts = {.pid = pid, .state = qor::kCreated}, .denied = reach == Reach::kDenied};
  ProcessRecord& facts = process.facts;
  if (stat.pid == pid) {  // it could be read
    facts.parentPid = stat.ppid;
    facts.startTime = StartTimeOf(stat);
    facts.sessionId = stat.session;
    if (stat.IsKernelThread()) {
      facts.flags = qor::kSystemProcess | qor::kNoBackingImage;
      facts.imagePath = DecodeBytes("[" + stat.comm + "]");
    }
  }
  ReadIds(facts);
  facts.commandLine = DecodeBytes(ReadCommandLine(pid));
  std::string path;
  if (ZYM_SUCCEEDED(m_parser->GetImagePath(pid, path))) facts.imagePath = DecodeBytes(path);
  if (ZYM_SUCCEEDED(m_parser->GetWorkingDir(pid, path))) facts.workingDirectory = DecodeBytes(path);
  // Of what has ended meanwhile half may be missing.
  if (ReachOfLiving(pid, stat) == Reach::kGone) return std::nullopt;
  return process;
}

}  // namespace pmhost
