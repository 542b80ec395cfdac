#include "process_manager/process/tools.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "process_manager/process_manager.h"
#include "zym/exception.h"
#include "zym/exception_to_result.h"
#include "zym/service_provider.h"
#include "zym/trace.h"
#include "zym/utf.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;
using zym::trace::kWarning;

constexpr std::string_view kDeletedSuffix = " (deleted)";
constexpr std::uint32_t kKernelFlags = kSystemProcess | kNoBackingImage;

std::shared_ptr<const zym::types::string16_t> Share(zym::types::string16_t text) {
  return std::make_shared<const zym::types::string16_t>(std::move(text));
}

// What is found out about the program that a process runs.
struct Program {
  NativePath path;
  zym::types::string16_t commandLine;
  std::uint32_t flags = 0;
};

Program ReadKernelThread(zym::ITracer* tracer, procfs::IParser* procfs, PidType pid) {
  Program program{.path = {}, .commandLine = {}, .flags = kKernelFlags};
  std::string comm;
  if (ZYM_SUCCEEDED(procfs->GetComm(pid, comm)))
    program.path = "[" + comm + "]";
  else
    ZYM_TRACE(tracer, kWarning, "Cannot get comm for pid: " << pid);
  return program;
}

zym::result_t ReadProgram(zym::ITracer* tracer, procfs::IParser* procfs, PidType pid, Program& program) {
  if (!ZYM_SUCCEEDED(procfs->GetImagePath(pid, program.path))) {
    const int error = errno;
    char text[128];
    ZYM_TRACE(tracer, kWarning,
              "Failed to obtain image path for pid: " << pid << ", error: "
                                                      << ::strerror_r(error, text, sizeof(text)));
    return zym::ZYM_E_NOT_FOUND;
  }
  ZYM_TRACE(tracer, kCall, "procfs->GetImagePath: " << program.path);
  ZYM_CHECK_RESULT_AS(tracer, "cmdlineResult", procfs->GetCmdline(pid, program.commandLine),
                      "Cannot get process cmdline from procfs for pid: " << pid);
  // A file whose name really ends so exists under it, and keeps it.
  if (program.path.ends_with(kDeletedSuffix) && ::access(program.path.c_str(), F_OK) != 0) {
    program.path.resize(program.path.size() - kDeletedSuffix.size());
    program.flags = kNoBackingImage;
  }
  return zym::ZYM_OK;
}

zym::result_t ReadKernel(procfs::IParser* procfs, process_cache::ProcessInformation& info) {
  zym::types::string16_t commandLine;
  if (const zym::result_t result = procfs->GetCmdline(0, commandLine); !ZYM_SUCCEEDED(result)) return result;
  AssignGroup<ProcessImage>(info, {.imagePath = u"kernel memory",
                                   .workingDirectory = {},
                                   .commandLine = Share(std::move(commandLine)),
                                   .flags = kKernelFlags,
                                   .state = kCreated});
  AssignGroup<ProcessIds>(info, {.pid = 0,
                                 .creatorPid = kNoPid,
                                 .parentPid = kNoPid,
                                 .uniquePid = 0,
                                 .creatorUniquePid = kNoUniquePid,
                                 .parentUniquePid = kNoUniquePid});
  AssignGroup<ProcessLifetime>(info, {});
  AssignGroup<ProcessCredentials>(
      info, {.realUserId = 0, .effectiveUserId = 0, .realGroupId = 0, .effectiveGroupId = 0});
  return zym::ZYM_OK;
}

}  // namespace

zym::result_t GetProcessInfo(zym::ITracer* tracer, procfs::IParser* procfs, PidType pid,
                             process_cache::ProcessInformation& info) try {
  if (pid == 0) return ReadKernel(procfs, info);
  if (pid == kNoPid) return zym::ZYM_E_INVALID_ARGUMENT;

  procfs::Stat stat;
  ZYM_CHECK_RESULT(tracer, procfs->GetStat(pid, stat),
                   "Cannot get process status from procfs for pid: " << pid);
  NativePath cwd;
  ZYM_CHECK_RESULT(tracer, procfs->GetWorkingDir(pid, cwd),
                   "Cannot get process cwd from procfs for pid: " << pid);
  std::uint64_t mountNamespaceId = kNoMountNamespace;
  ZYM_CHECK_RESULT_AS(tracer, "procfs->GetMountNamespaceId(pid, mountNsId)",
                      procfs->GetMountNamespaceId(pid, mountNamespaceId),
                      "Cannot get mount namespace id for pid: " << pid);
  Program program;
  if (stat.IsKernelThread()) {
    program = ReadKernelThread(tracer, procfs, pid);
  } else if (const zym::result_t result = ReadProgram(tracer, procfs, pid, program); !ZYM_SUCCEEDED(result)) {
    return result;
  }
  ZYM_TRACE(tracer, kCall, "(may be modified) imagePath: " << program.path);

  // What can fail comes before the first field: a failure leaves the record as it came.
  const zym::datetime_t startTime = zym::datetime::FromUnixSeconds(stat.directoryChangeTime);
  ProcessImage image;
  image.workingDirectory = zym::RequireUtf16(cwd);
  image.imagePath = zym::RequireUtf16(program.path);
  image.commandLine = Share(std::move(program.commandLine));
  image.flags = program.flags;
  image.state = kCreated;

  AssignGroup<ProcessImage>(info, std::move(image));
  AssignGroup<ProcessLifetime>(info, {.sessionId = stat.session, .startTime = startTime, .exitTime = 0});
  info.pid = stat.pid;
  info.parentPid = stat.ppid;
  info.realUserId = stat.uid;
  info.mountNamespaceId = mountNamespaceId;
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, __func__);
}

zym::result_t GetAdditionalProcessInfo(zym::ITracer* tracer, procfs::IParser* procfs,
                                       process_cache::ProcessInformation& info) try {
  const PidType pid = info.pid;
  if (pid == 0) return zym::ZYM_FALSE;
  procfs::Creds creds;
  ZYM_CHECK_RESULT(tracer, procfs->GetCreds(pid, creds),
                   "Cannot get process creds from procfs for pid: " << pid);
  zym::types::vector_t<zym::types::string_t> environment;
  ZYM_CHECK_RESULT_AS(tracer, "procfs->GetEnvironmentVariables(pid, envVars)",
                      procfs->GetEnvironmentVariables(pid, environment),
                      "Cannot get process environ from procfs for pid: " << pid);
  info.effectiveUserId = creds.uid[1];
  info.realGroupId = creds.gid[0];
  info.effectiveGroupId = creds.gid[1];
  info.environment = std::move(environment);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, __func__);
}

zym::result_t GetFullProcessInfo(zym::ITracer* tracer, procfs::IParser* procfs, PidType pid,
                                 process_cache::ProcessInformation& info) {
  ZYM_CHECK_RESULT_AS(tracer, "GetProcessInfo(tracer, procfs, pid, pinfo)",
                      GetProcessInfo(tracer, procfs, pid, info),
                      "Cannot get full process info from procfs for pid: " << pid);
  ZYM_CHECK_RESULT_AS(tracer, "GetAdditionalProcessInfo(tracer, procfs, pinfo)",
                      GetAdditionalProcessInfo(tracer, procfs, info),
                      "Cannot get additional process info from procfs for pid: " << pid);
  return zym::ZYM_OK;
}

zym::result_t GetPid(zym::IServiceLocator* locator, zym::ITracer* tracer, UniquePidType uniquePid,
                     PidType& pid) {
  using namespace system_interceptors::process_manager;
  zym::intrusive_ptr<IProcessManager> manager;
  ZYM_CHECK_RESULT_AS(tracer, "zym::GetInterface(sl, processManager.Ref())",
                      zym::GetInterface(locator, manager.Ref()), "Failed to get IProcessManager");
  zym::intrusive_ptr<IProcessInformation> information;
  ZYM_CHECK_RESULT_AS(tracer, "processManager->GetInformationByUniqueId(uniquePid, processInformation.Ref())",
                      manager->GetInformationByUniqueId(uniquePid, information.Ref()),
                      "Failed to get IProcessInformation for uniquePid " << uniquePid);
  ProcessInformation record;
  ZYM_CHECK_RESULT_AS(tracer, "processInformation->GetInformation(informationOfProcess)",
                      information->GetInformation(record), "Failed to get ProcessInformation");
  pid = record.pid;
  ZYM_TRACE(tracer, kCall, __func__ << ": uniquePid " << uniquePid << " corresponds to pid " << pid);
  return zym::ZYM_OK;
}

}  // namespace qor::process_manager
