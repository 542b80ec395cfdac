#include "process_manager/process/process_control.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <utility>

#include "process_manager/proc_parser.h"
#include "process_manager/process/process_information.h"
#include "process_manager/services/app_settings.h"
#include "process_manager/services/path_matching.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"
#include "zym/utf.h"

namespace qor::process_manager {
namespace {

using system_interceptors::process_manager::kInvisibleProcess;
using zym::trace::kCall;
using zym::trace::kWarning;
using IProcessInformation = system_interceptors::process_manager::IProcessInformation;
using Record = system_interceptors::process_manager::ProcessInformation;

constexpr unsigned kStepMilliseconds = 10;
constexpr std::uint64_t kTimeUnitsPerSecond = 10'000'000;

// Who loaded the module; a fork of the host later on changes nothing.
const PidType g_modulePid = static_cast<PidType>(::getpid());

template <class Key>
zym::intrusive_ptr<IProcessInformation> MakeInformation(zym::IServiceLocator* locator, const Key& key) try {
  return zym::CreateObject<ProcessInformation>(locator, key, false);
} catch (...) {
  // What failed is nested in what that means; both have the one code.
  zym::CheckResultFailedException failure(__FILE__, __LINE__, zym::ExceptionToResult(nullptr));
  failure << ". Cannot get informatio for process " << key;  // the word is meant to be spelled so
  std::throw_with_nested(std::move(failure));
}

// Whole seconds, for the division comes first; that is meant.
std::uint64_t ToTimeUnits(std::int64_t ticks) {
  return static_cast<std::uint64_t>(ticks / ::sysconf(_SC_CLK_TCK)) * kTimeUnitsPerSecond;
}

}  // namespace

ProcessControlSurroundings ProcessControlSurroundings::Real() {
  return {
      .modulePid = g_modulePid,
      .exists = [](const char* path) { return ::access(path, F_OK); },
      .sleep = [](const std::timespec* request, std::timespec* left) { return ::nanosleep(request, left); },
      .kill = [](pid_t pid, int signo) { return ::kill(pid, signo); }};
}

ProcessControl::ProcessControl(zym::IServiceLocator* locator, PidType pid,
                               ProcessControlSurroundings surroundings)
    : ProcessControl(locator, By<PidType>{pid}, std::move(surroundings)) {}

ProcessControl::ProcessControl(zym::IServiceLocator* locator, const UniquePidType& uniquePid,
                               ProcessControlSurroundings surroundings)
    : ProcessControl(locator, By<UniquePidType>{uniquePid}, std::move(surroundings)) {}

template <class Key>
ProcessControl::ProcessControl(zym::IServiceLocator* locator, By<Key> by,
                               ProcessControlSurroundings surroundings)
    : ServiceProvider(locator), m_surroundings(std::move(surroundings)) {
  ZYM_TRACE(GetTracer(), kCall, "ProcessControl(" << by.key);  // meant without its closing parenthesis
  m_information = MakeInformation(locator, by.key);
  Record record;
  ZYM_CHECK_RESULT_OR_THROW(m_information->GetInformation(record));
  m_pid = record.pid;
  if (record.pid == m_surroundings.modulePid || record.parentPid == m_surroundings.modulePid) {
    ZYM_TRACE(
        GetTracer(), kCall,
        __func__ << ": is invisible: process '" << record.imagePath << "' excluded (self or child process)");
    m_attributeFlags = kInvisibleProcess;
    return;
  }
  const NativePath path = zym::RequireUtf8(record.imagePath);
  if (IsExcludedBySettings(path)) {
    ZYM_TRACE(GetTracer(), kCall,
              __func__ << ": is invisible: process '" << path << "' excluded by settings");
    m_attributeFlags = kInvisibleProcess;
  }
}

bool ProcessControl::IsExcludedBySettings(const NativePath& imagePath) const {
  zym::intrusive_ptr<IAppSettingsProvider> provider;
  ZYM_CHECK_RESULT_OR_THROW(zym::GetInterface(GetServiceLocator(), provider.Ref()),
                            "Cannot get app settings");
  AppSettings settings;
  ZYM_CHECK_RESULT_OR_THROW(provider->GetSettings(settings), "Cannot get app settings");
  zym::intrusive_ptr<IPathMatcherFactory> factory;
  ZYM_CHECK_RESULT_OR_THROW(zym::GetInterface(GetServiceLocator(), factory.Ref()),
                            "Cannot create path matcher");
  zym::intrusive_ptr<IPathMatcher> matcher;
  ZYM_CHECK_RESULT_OR_THROW(factory->CreatePathMatcher(settings.excludedProcesses, matcher.Ref()),
                            "Cannot create path matcher");
  ZYM_CHECK_RESULT_OR_THROW(matcher ? zym::ZYM_OK : zym::ZYM_E_NO_INTERFACE, "Cannot create path matcher");
  return matcher->Match(imagePath) == zym::ZYM_OK;
}

zym::result_t ProcessControl::GetInformation(IProcessInformation** information) {
  *information = zym::intrusive_ptr(m_information).Detach();
  return zym::ZYM_OK;
}

zym::result_t ProcessControl::GetExitTime(zym::datetime_t&) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- not implemented");
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

zym::result_t ProcessControl::GetTimes(system_interceptors::process_manager::ProcessTimes& times) {
  ZYM_TRACE(GetTracer(), kCall, "ProcessControl::GetTimes()");
  if (m_pid == 0) {
    times = {};
    return zym::ZYM_OK;
  }
  zym::intrusive_ptr<procfs::IParser> procfs;
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), procfs.Ref()),
                   "Failed to load procfs::IParser");
  procfs::Stat stat;
  ZYM_CHECK_RESULT(GetTracer(), procfs->GetStat(m_pid, stat),
                   "Failed procfs->GetStat(" << m_pid << ", stat)");
  times = {.kernelTime = ToTimeUnits(stat.stime), .userTime = ToTimeUnits(stat.utime)};
  return zym::ZYM_OK;
}

zym::result_t ProcessControl::GetIoCounters(
    system_interceptors::process_manager::ProcessIoCounters& counters) {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  if (m_pid == 0) {
    counters = {};
    return zym::ZYM_OK;
  }
  zym::intrusive_ptr<procfs::IParser> procfs;
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), procfs.Ref()),
                   "Failed to load procfs::IParser");
  procfs::IOCounters io;
  // The message names the operation of GetTimes; that is meant.
  ZYM_CHECK_RESULT(GetTracer(), procfs->GetIOCounters(m_pid, io),
                   "Failed procfs->GetStat(" << m_pid << ", stat)");
  counters = {.readOperations = io.syscr,
              .writeOperations = io.syscw,
              .otherOperations = 0,
              .readBytes = io.rchar,
              .writeBytes = io.wchar,
              .otherBytes = 0};
  return zym::ZYM_OK;
}

zym::result_t ProcessControl::GetVmCounters(system_interceptors::process_manager::ProcessVmCounters&) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- not implemented");
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

zym::result_t ProcessControl::IsSystemCriticalProcess(bool&) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- not implemented, use SCO instead");
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

zym::result_t ProcessControl::Kill(int signo) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() signo=" << signo);
  const int result = m_surroundings.kill(static_cast<pid_t>(m_pid), signo);
  const int error = result == 0 ? 0 : errno;
  if (result != 0)
    ZYM_TRACE(GetTracer(), kCall,
              __func__ << ": Failed to send signal " << signo << " to process: " << m_pid);
  return zym::ErrnoToResult(error);
}

zym::result_t ProcessControl::Terminate() {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  if (m_pid == 0) {
    ZYM_TRACE(GetTracer(), kCall, __func__ << ": Ignore attempt to terminate kernel process");
    return zym::ZYM_E_INVALID_ARGUMENT;
  }
  return Kill(SIGTERM);
}

zym::result_t ProcessControl::TerminateAndWait(unsigned timeout) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() timeout=" << timeout);
  if (m_pid == 0) {
    ZYM_TRACE(GetTracer(), kCall, __func__ << ": Ignore attempt to terminate kernel process");
    return zym::ZYM_E_INVALID_ARGUMENT;
  }
  ZYM_CHECK_RESULT_AS(GetTracer(), "Kill(15)", Kill(SIGTERM));
  if (WaitForExit(timeout)) return zym::ZYM_OK;
  ZYM_TRACE(GetTracer(), kWarning, __func__ << ": Cannot wait for exit, send SIGKILL");
  ZYM_CHECK_RESULT_AS(GetTracer(), "Kill(9)", Kill(SIGKILL));
  return zym::ZYM_OK;
}

// True: the process is gone. One look more than the timeout has steps; a timeout below one step gives the
// process one step, and no second look.
bool ProcessControl::WaitForExit(unsigned timeout) const {
  char path[32];
  std::snprintf(path, sizeof(path), "/proc/%d/status", static_cast<int>(m_pid));
  const unsigned steps = timeout / kStepMilliseconds;
  for (unsigned looks = 0;;) {
    const int error = m_surroundings.exists(path) == 0 ? -1 : errno;
    if (error == EINTR) continue;
    // No errno of access(2) has a code of success; one that came to have it would mean an end, too.
    if (error != -1) return error == ENOENT || ZYM_SUCCEEDED(zym::ErrnoToResult(error));
    const bool last = ++looks > steps;
    if (!last || steps == 0) SleepOneStep();
    if (last) return false;
  }
}

void ProcessControl::SleepOneStep() const {
  std::timespec left{.tv_sec = 0, .tv_nsec = kStepMilliseconds * 1'000'000L};
  while (m_surroundings.sleep(&left, &left) != 0 && errno == EINTR) continue;
}

zym::result_t ProcessControl::GetAttributeFlags(std::uint32_t& flags) {
  flags = m_attributeFlags;
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- attributeFlags=" << flags);
  return zym::ZYM_OK;
}

zym::result_t ProcessControl::UpdateAttributeFlags(std::uint32_t add, std::uint32_t remove) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() add=" << add << ", remove=" << remove);
  ZYM_CHECK(GetTracer(), (add & remove) == 0, zym::ZYM_E_INVALID_ARGUMENT);
  std::uint32_t flags = m_attributeFlags;
  while (!m_attributeFlags.compare_exchange_weak(flags, (flags | add) & ~remove)) continue;
  return zym::ZYM_OK;
}

}  // namespace qor::process_manager
