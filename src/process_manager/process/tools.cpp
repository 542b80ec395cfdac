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

constexpr std::uint32_t kKernelThread = 0x200000;  // PF_KTHREAD, include/linux/sched.h
constexpr std::string_view kDeletedSuffix = " (deleted)";

std::shared_ptr<const zym::types::string16_t> Share(zym::types::string16_t text) {
  return std::make_shared<const zym::types::string16_t>(std::move(text));
}

// What is found out about the program that a process runs.
struct Image {
  NativePath path;
  zym::types::string16_t commandLine;
  std::uint32_t flags = 0;
};

void ReadKernelThread(zym::ITracer* tracer, procfs::IParser* procfs, PidType pid, Image& image) {
  std::string comm;
  if (ZYM_SUCCEEDED(procfs->GetComm(pid, comm)))
    image.path = "[" + comm + "]";
  else
    ZYM_TRACE(tracer, kWarning, "Cannot get comm for pid: " << pid);
  image.flags = kSystemProcess | kNoBackingImage;
}

zym::result_t ReadProgram(zym::ITracer* tracer, procfs::IParser* procfs, PidType pid, Image& image) {
  if (!ZYM_SUCCEEDED(procfs->GetImagePath(pid, image.path))) {
    const int error = errno;
    char text[128];
    ZYM_TRACE(tracer, kWarning,
              "Failed to obtain image path for pid: " << pid << ", error: "
                                                      << ::strerror_r(error, text, sizeof(text)));
    return zym::ZYM_E_NOT_FOUND;
  }
  ZYM_TRACE(tracer, kCall, "procfs->GetImagePath: " << image.path);
  const zym::result_t cmdlineResult = procfs->GetCmdline(pid, image.commandLine);
  ZYM_CHECK_RESULT(tracer, cmdlineResult, "Cannot get process cmdline from procfs for pid: " << pid);
  // A file whose name really ends so exists under it, and keeps it.
  if (image.path.ends_with(kDeletedSuffix) && ::access(image.path.c_str(), F_OK) != 0) {
    image.path.resize(image.path.size() - kDeletedSuffix.size());
    image.flags = kNoBackingImage;
  }
  return zym::ZYM_OK;
}

zym::result_t ReadKernel(procfs::IParser* procfs, process_cache::ProcessInformation& pinfo) {
  zym::types::string16_t commandLine;
  if (const zym::result_t result = procfs->GetCmdline(0, commandLine); !ZYM_SUCCEEDED(result)) return result;
  pinfo.pid = 0;
  pinfo.creatorPid = kNoPid;
  pinfo.parentPid = kNoPid;
  pinfo.uniquePid = 0;
  pinfo.creatorUniquePid = kNoUniquePid;
  pinfo.parentUniquePid = kNoUniquePid;
  pinfo.sessionId = 0;
  pinfo.startTime = 0;
  pinfo.exitTime = 0;
  pinfo.imagePath = u"kernel memory";
  pinfo.workingDirectory.clear();
  pinfo.flags = kSystemProcess | kNoBackingImage;
  pinfo.state = kCreated;
  pinfo.commandLine = Share(std::move(commandLine));
  pinfo.realUserId = 0;
  pinfo.effectiveUserId = 0;
  pinfo.realGroupId = 0;
  pinfo.effectiveGroupId = 0;
  return zym::ZYM_OK;
}

}  // namespace

zym::result_t GetProcessInfo(zym::ITracer* tracer, procfs::IParser* procfs, PidType pid,
                             process_cache::ProcessInformation& pinfo) try {
  if (pid == 0) return ReadKernel(procfs, pinfo);
  if (pid == kNoPid) return zym::ZYM_E_INVALID_ARGUMENT;

  procfs::Stat stat;
  ZYM_CHECK_RESULT(tracer, procfs->GetStat(pid, stat),
                   "Cannot get process status from procfs for pid: " << pid);
  NativePath cwd;
  ZYM_CHECK_RESULT(tracer, procfs->GetWorkingDir(pid, cwd),
                   "Cannot get process cwd from procfs for pid: " << pid);
  std::uint64_t mountNsId = kNoMountNamespace;
  ZYM_CHECK_RESULT(tracer, procfs->GetMountNamespaceId(pid, mountNsId),
                   "Cannot get mount namespace id for pid: " << pid);

  Image image;
  if ((stat.flags & kKernelThread) != 0) {
    ReadKernelThread(tracer, procfs, pid, image);
  } else if (const zym::result_t result = ReadProgram(tracer, procfs, pid, image); !ZYM_SUCCEEDED(result)) {
    return result;
  }
  ZYM_TRACE(tracer, kCall, "(may be modified) imagePath: " << image.path);

  // What can fail comes before the first field: a failure leaves the record as it came.
  const zym::datetime_t startTime = zym::datetime::FromUnixSeconds(stat.directoryChangeTime);
  zym::types::string16_t workingDirectory = zym::RequireUtf16(cwd);
  zym::types::string16_t imagePath = zym::RequireUtf16(image.path);
  auto commandLine = Share(std::move(image.commandLine));

  pinfo.pid = stat.pid;
  pinfo.parentPid = stat.ppid;
  pinfo.sessionId = stat.session;
  pinfo.startTime = startTime;
  pinfo.exitTime = 0;
  pinfo.state = kCreated;
  pinfo.workingDirectory = std::move(workingDirectory);
  pinfo.imagePath = std::move(imagePath);
  pinfo.commandLine = std::move(commandLine);
  pinfo.flags = image.flags;
  pinfo.realUserId = stat.uid;
  pinfo.mountNamespaceId = mountNsId;
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, "GetProcessInfo");
}

zym::result_t GetAdditionalProcessInfo(zym::ITracer* tracer, procfs::IParser* procfs,
                                       process_cache::ProcessInformation& pinfo) try {
  const PidType pid = pinfo.pid;
  if (pid == 0) return zym::ZYM_FALSE;
  procfs::Creds creds;
  ZYM_CHECK_RESULT(tracer, procfs->GetCreds(pid, creds),
                   "Cannot get process creds from procfs for pid: " << pid);
  zym::types::vector_t<zym::types::string_t> envVars;
  ZYM_CHECK_RESULT(tracer, procfs->GetEnvironmentVariables(pid, envVars),
                   "Cannot get process environ from procfs for pid: " << pid);
  pinfo.effectiveUserId = creds.uid[1];
  pinfo.realGroupId = creds.gid[0];
  pinfo.effectiveGroupId = creds.gid[1];
  pinfo.environment = std::move(envVars);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, "GetAdditionalProcessInfo");
}

zym::result_t GetFullProcessInfo(zym::ITracer* tracer, procfs::IParser* procfs, PidType pid,
                                 process_cache::ProcessInformation& pinfo) {
  ZYM_CHECK_RESULT(tracer, GetProcessInfo(tracer, procfs, pid, pinfo),
                   "Cannot get full process info from procfs for pid: " << pid);
  ZYM_CHECK_RESULT(tracer, GetAdditionalProcessInfo(tracer, procfs, pinfo),
                   "Cannot get additional process info from procfs for pid: " << pid);
  return zym::ZYM_OK;
}

zym::result_t GetPid(zym::IServiceLocator* sl, zym::ITracer* tracer, UniquePidType uniquePid,
                     PidType& pid) try {
  using system_interceptors::process_manager::IProcessInformation;
  using system_interceptors::process_manager::IProcessManager;
  zym::intrusive_ptr<IProcessManager> processManager;
  ZYM_CHECK_RESULT(tracer, zym::GetInterface(sl, processManager.Ref()), "Failed to get IProcessManager");
  zym::intrusive_ptr<IProcessInformation> processInformation;
  ZYM_CHECK_RESULT(tracer, processManager->GetInformationByUniqueId(uniquePid, processInformation.Ref()),
                   "Failed to get IProcessInformation for uniquePid " << uniquePid);
  system_interceptors::process_manager::ProcessInformation informationOfProcess;
  ZYM_CHECK_RESULT(tracer, processInformation->GetInformation(informationOfProcess),
                   "Failed to get ProcessInformation");
  pid = informationOfProcess.pid;
  ZYM_TRACE(tracer, kCall, __func__ << ": uniquePid " << uniquePid << " corresponds to pid " << pid);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, "GetPid");
}

}  // namespace qor::process_manager
