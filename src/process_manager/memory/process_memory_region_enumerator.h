// A walk over the regions of a memory.
#pragma once

#include <cstdint>

#include "process_manager/process_memory.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_memory_manager {

// Asks the memory for one region after the other. Has no lock: one caller at a time.
class ProcessMemoryRegionEnumerator
    : public zym::object::Ifaces<system_interceptors::process_memory_manager::IProcessMemoryRegionEnumerator>,
      public zym::ServiceProvider<zym::IServiceLocator, zym::ITracer>,
      public zym::NonCopyable {
 public:
  ProcessMemoryRegionEnumerator(
      zym::IServiceLocator* locator,
      zym::intrusive_ptr<system_interceptors::process_memory_manager::IProcessMemory> memory);

  // Lets the memory go.
  void FinalRelease();

  zym::result_t Next(
      system_interceptors::process_memory_manager::ProcessMemoryRegionInformation& information) override;
  zym::result_t Reset() override;

 private:
  [[nodiscard]] std::uint64_t AddressBehind(
      const system_interceptors::process_memory_manager::ProcessMemoryRegionInformation& region) const;

  zym::intrusive_ptr<system_interceptors::process_memory_manager::IProcessMemory> m_memory;
  std::uint64_t m_cursor = 0;  // where the next region begins, or below
};

}  // namespace qor::process_memory_manager
