#include "process_manager/process/process_snapshot.h"

#include <exception>

#include "process_manager/proc_parser.h"
#include "process_manager/process/process_information.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;
using zym::trace::kWarning;

constexpr PidType kKernel = 0;

}  // namespace

ProcessSnapshot::ProcessSnapshot(zym::IServiceLocator* locator) : InterfaceProvider(locator) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  zym::intrusive_ptr<procfs::IParser> procfs;
  ZYM_CHECK_RESULT_OR_THROW(zym::GetInterface(locator, procfs.Ref()), "Failed to load procfs::IParser");
  std::vector<unsigned int> pids;
  ZYM_CHECK_RESULT_OR_THROW(procfs->GetProcessList(pids), "Failed to iterate /proc folder");
  pids.push_back(kKernel);
  m_processes.reserve(pids.size());
  for (const PidType pid : pids) {
    try {
      m_processes.emplace_back(zym::CreateObject<ProcessInformation>(locator, pid, true));
    } catch (const std::exception& e) {
      ZYM_TRACE(GetTracer(), kWarning,
                __func__ << ": Failed to read info for task " << pid << ", error: " << e.what());
    }
  }
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- ");
}

ProcessSnapshot::~ProcessSnapshot() {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
}

zym::result_t ProcessSnapshot::Next(system_interceptors::process_manager::IProcessInformation** information) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  if (m_next == m_processes.size()) return zym::ZYM_FALSE;
  *information = zym::intrusive_ptr(m_processes[m_next++]).Detach();
  return zym::ZYM_OK;
}

zym::result_t ProcessSnapshot::Reset() {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  m_next = 0;
  return zym::ZYM_OK;
}

}  // namespace qor::process_manager
