// What the reader of /proc knows of the kernel itself.
#include <utility>

#include "process_manager/procfs/kernel_setting.h"
#include "process_manager/procfs/proc_file.h"
#include "process_manager/procfs/proc_modules.h"
#include "process_manager/procfs/proc_parser.h"
#include "process_manager/procfs/proc_path.h"
#include "process_manager/procfs/procfs_text.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::procfs {
namespace {

using zym::trace::kCall;
using zym::trace::kFailure;

constexpr const char* kSysModule = "/sys/module";
constexpr const char* kWillRaise =
    "will try to read with kptr_restrict set to 0 and perf_event_paranoid set to 1";

}  // namespace

zym::result_t ProcParser::GetIOMemMap(IOMemMap& map) try {
  const NativePath path = JoinPath(GetProcRoot(), "iomem");
  ProcFile file;
  if (file.Read(path.c_str()) == ReadResult::kCannotOpen) {
    ZYM_TRACE(GetTracer(), kFailure, "Unable to open " << path);
    return zym::ZYM_E_UNSPECIFIED;
  }
  ParseIOMemMap(file.Text(), map);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetModules(ModulesList& modules, bool allowZeroModuleOffset) {
  ZYM_TRACE(GetTracer(), kCall,
            __PRETTY_FUNCTION__ << ", allowZeroModuleOffset is " << allowZeroModuleOffset);
  const NativePath path = JoinPath(GetProcRoot(), "modules");
  ProcFile file;
  if (file.Read(path.c_str()) == ReadResult::kCannotOpen) {
    ZYM_TRACE(GetTracer(), kFailure, "Unable to open " << path);
    return zym::ZYM_E_UNSPECIFIED;
  }
  ModuleResult result = ModuleResult::kParsed;
  ForEachLine(file.Text(), [&](std::string_view line) {
    ModuleEntry entry;
    result = ParseModule(line, allowZeroModuleOffset, entry);
    if (result == ModuleResult::kSkipped) ZYM_TRACE(GetTracer(), kCall, "Skipped line: " << line);
    if (result == ModuleResult::kParsed) modules.push_back(std::move(entry));
    return result != ModuleResult::kHidden;
  });
  if (result != ModuleResult::kHidden) return zym::ZYM_OK;
  ZYM_TRACE(GetTracer(), kCall, "bad offset, need call with allowZeroModuleOffset as true");
  return zym::ZYM_E_ACCESS_DENIED;
}

// The list isn't cleared between the two attempts: where only some offsets were hidden, what came before the
// first of them is there twice. That is meant.
zym::result_t ProcParser::GetModules(ModulesList& modules) try {
  const zym::result_t result = GetModules(modules, false);
  if (result != zym::ZYM_E_ACCESS_DENIED) return result;
  ZYM_TRACE(GetTracer(), kCall, kWillRaise);
  const ScopedKernelAddresses addresses(GetProcRoot());
  return GetModules(modules, true);
} catch (const zym::CheckFailedException&) {
  throw;  // of the settings; the caller has to know why
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetModulesSections(const ModulesList& modules, ModulesSections& modulesSections,
                                             std::uint64_t kernelModulesSectionEndVaddr) try {
  const zym::result_t result =
      ReadModulesSections(GetTracer(), kSysModule, modules, modulesSections, kernelModulesSectionEndVaddr);
  if (result != zym::ZYM_E_ACCESS_DENIED) return result;
  ZYM_TRACE(GetTracer(), kCall, __func__ << ": " << kWillRaise);
  const ScopedKernelAddresses addresses(GetProcRoot());
  modulesSections.clear();
  return ReadModulesSections(GetTracer(), kSysModule, modules, modulesSections, kernelModulesSectionEndVaddr);
} catch (const zym::CheckFailedException&) {
  throw;  // of the settings; the caller has to know why
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

}  // namespace qor::procfs
