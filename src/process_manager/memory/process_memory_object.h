// The memory of one process.
#pragma once

#include <cstdint>

#include "process_manager/proc_parser.h"
#include "process_manager/process_memory.h"
#include "process_manager/services/process_suspender.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_memory_manager {

using system_interceptors::process_manager::IProcessControl;
using system_interceptors::process_memory_manager::IProcessMemory;
using system_interceptors::process_memory_manager::IProcessMemoryRegionEnumerator;
using system_interceptors::process_memory_manager::ProcessMemoryRegionInformation;

// Region queries read a snapshot that never changes, so any number of threads may ask at once; each read of
// memory opens the process's mem file for itself.
class ProcessMemory : public zym::object::Ifaces<IProcessMemory>,
                      public zym::ServiceProvider<zym::IServiceLocator, zym::ITracer>,
                      public zym::NonCopyable {
 public:
  // Takes the snapshot; with `suspend`, stops the process too, until the last release of the object. Throws
  // zym::CheckResultFailedException on every failure.
  static zym::intrusive_ptr<ProcessMemory> Create(zym::IServiceLocator* locator, IProcessControl* control,
                                                  bool suspend);

  // Has no regions yet, and has stopped nothing. `suspend`: reads go through the suspender.
  ProcessMemory(zym::IServiceLocator* locator, zym::intrusive_ptr<IProcessControl> control, PidType pid,
                bool suspend);

  void FinalRelease();

  zym::result_t EnumerateMemoryRegions(IProcessMemoryRegionEnumerator** enumerator) override;
  zym::result_t QueryRegion(std::uint64_t address, ProcessMemoryRegionInformation& information) override;
  zym::result_t QueryMappedFilePath(std::uint64_t address, zym::types::string16_t& path) const override;
  zym::result_t ReadMemory(std::uint64_t address, const zym::types::blob_range_t& range) override;
  zym::result_t WriteMemory(std::uint64_t address, const zym::types::const_blob_range_t& range) override;

 private:
  zym::result_t SuspendProcess();

  const zym::intrusive_ptr<IProcessControl> m_control;
  const PidType m_pid;
  const bool m_suspend;
  procfs::Maps m_maps;
  zym::intrusive_ptr<IQorProcessSuspender> m_suspender;  // null unless the process is suspended
};

}  // namespace qor::process_memory_manager
