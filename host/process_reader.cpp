#include "host/process_reader.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>

#include "host/failure.h"
#include "host/output/byte_text.h"
#include "qor_common/procfs_root.h"
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
// clock tick, in which the kernel tells the start of a process, would be noise.
std::int64_t BootTime() {
  const std::int64_t tick = kNanosecondsPerSecond / ::sysconf(_SC_CLK_TCK);
  const std::int64_t time = Nanoseconds(CLOCK_REALTIME) - Nanoseconds(CLOCK_BOOTTIME);
  return (time + tick / 2) / tick * tick;
}

// Its arguments, joined by single blanks; everybody may read them.
std::string ReadCommandLine(std::uint32_t pid) {
  std::ifstream file(qor::procfs::GetProcfsRoot() + std::to_string(pid) + "/cmdline", std::ios::binary);
  std::string text(std::istreambuf_iterator<char>(file), {});
  if (text.ends_with('\0')) text.pop_back();
  std::ranges::replace(text, '\0', ' ');
  return text;
}

}  // namespace

ShownProcess KnownProcess::Shown() const {
  return {
      .pid = record.pid,
      .uniquePid = UnlessAllOnes(std::optional(record.uniquePid)),
      .parentPid = UnlessAllOnes(std::optional(record.parentPid)),
      .uniqueParentPid = UnlessAllOnes(std::optional(record.parentUniquePid)),
      .creatorPid = UnlessAllOnes(std::optional(record.creatorPid)),
      .uniqueCreatorPid = UnlessAllOnes(std::optional(record.creatorUniquePid)),
      .sessionId = sessionId,
      .startTime = UnlessZero(record.startTime),
      .exitTime = UnlessZero(record.exitTime),
      .imagePath = UnlessEmpty(record.imagePath),
      .workingDirectory = UnlessEmpty(record.workingDirectory),
      .commandLine = UnlessEmpty(record.commandLine),
      .userId = userId,
      .flags = flags,
      .state = record.state,
  };
}

ProcessReader::ProcessReader(const Host& host)
    : m_manager(host.Make<IProcessManager>(qor::class_ids::kProcessManager, "the door to processes")),
      m_parser(host.Make<qor::procfs::IParser>(qor::class_ids::kProcParser, "the reader of /proc")),
      m_bootTime(BootTime()) {}

std::optional<KnownProcess> ProcessReader::Read(std::uint32_t pid) {
  zym::intrusive_ptr<IProcessInformation> information;
  if (ZYM_SUCCEEDED(m_manager->GetInformation(pid, information.Ref()))) return Complete(*information);
  return ReadInPart(pid);
}

std::vector<KnownProcess> ProcessReader::ReadAll() {
  // Before the snapshot, so that none that begins behind it is taken for one that it left out.
  const std::vector<unsigned int> listed = ListProcesses();
  zym::intrusive_ptr<IProcessInformationEnumerator> snapshot;
  Require(m_manager->Enumerate(snapshot.Ref()), "cannot list the processes");

  std::vector<KnownProcess> processes;
  std::set<std::uint32_t> found;
  zym::intrusive_ptr<IProcessInformation> information;
  zym::result_t next = zym::ZYM_OK;
  while ((next = snapshot->Next(information.Ref())) == zym::ZYM_OK) {
    std::optional<KnownProcess> process = Complete(*information);
    if (!process) continue;
    found.insert(process->record.pid);
    processes.push_back(std::move(*process));
  }
  Require(next, "cannot go on with the list of processes");
  for (const std::uint32_t pid : listed) {
    if (found.contains(pid)) continue;
    if (std::optional<KnownProcess> process = Read(pid)) processes.push_back(std::move(*process));
  }
  std::ranges::sort(processes, {}, [](const KnownProcess& process) {
    return std::pair(process.record.pid == kKernel, process.record.pid);
  });
  return processes;
}

std::optional<KnownProcess> ProcessReader::ReadByUniquePid(std::uint64_t uniquePid) {
  constexpr std::int64_t kSlack = 1;  // seconds by which the clock may have been set in between
  zym::intrusive_ptr<IProcessInformation> information;
  std::optional<KnownProcess> process;
  if (ZYM_SUCCEEDED(m_manager->GetInformationByUniqueId(uniquePid, information.Ref())))
    process = Complete(*information);
  else
    process = ReadInPart(qor::PidOf(uniquePid));
  if (!process || process->record.uniquePid == uniquePid) return process;
  const auto named = static_cast<std::int64_t>(uniquePid >> 32);
  const std::int64_t started =
      (process->record.startTime - zym::datetime::kUnixEpoch) / zym::datetime::kUnitsPerSecond;
  const bool wasThere = process->record.pid != kKernel && started <= named + kSlack;
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

std::optional<KnownProcess> ProcessReader::Complete(IProcessInformation& information) {
  KnownProcess process;
  Require(information.GetInformation(process.record), "cannot tell what is known of a process");
  process.sessionId = process.record.sessionId;
  process.flags = process.record.flags;
  process.userId = process.record.userId;
  ReadIds(process);
  const std::uint32_t pid = process.record.pid;
  if (pid == kKernel) {
    // The file in which the kernel tells its own command line ends with a line end.
    if (process.record.commandLine.ends_with(u'\n')) process.record.commandLine.pop_back();
    return process;
  }
  // A process that was replacing its image had none for a moment.
  if (process.record.commandLine.empty()) process.record.commandLine = DecodeBytes(ReadCommandLine(pid));
  qor::procfs::Stat stat;
  if (ReachOfLiving(pid, stat) == Reach::kGone) return std::nullopt;  // known by halves, it may be
  if (stat.pid == pid) process.record.startTime = StartTimeOf(stat);
  return process;
}

void ProcessReader::ReadIds(KnownProcess& process) {
  qor::procfs::Creds creds;
  if (ZYM_SUCCEEDED(m_parser->GetCreds(process.record.pid, creds))) process.userId = creds.uid[0];
}

// kGone for one that has ended, even if its parent has yet to collect it.
Reach ProcessReader::ReachOfLiving(std::uint32_t pid, qor::procfs::Stat& stat) {
  const zym::result_t result = m_parser->GetStat(pid, stat);
  if (result == zym::ZYM_E_NOT_FOUND || (ZYM_SUCCEEDED(result) && HasEnded(stat))) return Reach::kGone;
  // The first that a process loses when it ends is its memory, and with it the link to its program; a thread
  // of the kernel never had it.
  return ReachOf(pid, stat.IsKernelThread() ? "cwd" : "exe");
}

std::optional<KnownProcess> ProcessReader::ReadInPart(std::uint32_t pid) {
  qor::procfs::Stat stat;
  const Reach reach = ReachOfLiving(pid, stat);
  if (reach == Reach::kGone) return std::nullopt;
  KnownProcess process{.denied = reach == Reach::kDenied};
  qor::process_manager::AssignGroup<qor::process_manager::ProcessIds>(process.record,
                                                                      {.pid = pid,
                                                                       .creatorPid = qor::kNoPid,
                                                                       .parentPid = qor::kNoPid,
                                                                       .uniquePid = qor::kNoUniquePid,
                                                                       .creatorUniquePid = qor::kNoUniquePid,
                                                                       .parentUniquePid = qor::kNoUniquePid});
  process.record.state = qor::kCreated;
  if (stat.pid == pid) {  // it could be read
    process.record.parentPid = stat.ppid;
    process.record.startTime = StartTimeOf(stat);
    process.sessionId = stat.session;
    if (stat.IsKernelThread()) {
      process.flags = qor::kSystemProcess | qor::kNoBackingImage;
      process.record.imagePath = DecodeBytes("[" + stat.comm + "]");
    }
  }
  ReadIds(process);
  process.record.commandLine = DecodeBytes(ReadCommandLine(pid));
  std::string path;
  if (ZYM_SUCCEEDED(m_parser->GetImagePath(pid, path))) process.record.imagePath = DecodeBytes(path);
  if (ZYM_SUCCEEDED(m_parser->GetWorkingDir(pid, path))) process.record.workingDirectory = DecodeBytes(path);
  // What has ended meanwhile is known by halves.
  if (ReachOfLiving(pid, stat) == Reach::kGone) return std::nullopt;
  return process;
}

}  // namespace pmhost
