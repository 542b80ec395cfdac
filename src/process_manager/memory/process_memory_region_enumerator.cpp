#include "process_manager/memory/process_memory_region_enumerator.h"

#include <utility>

#include "zym/trace.h"

namespace qor::process_memory_manager {

using namespace system_interceptors::process_memory_manager;

ProcessMemoryRegionEnumerator::ProcessMemoryRegionEnumerator(zym::IServiceLocator* locator,
                                                             zym::intrusive_ptr<IProcessMemory> memory)
    : ServiceProvider(locator), m_memory(std::move(memory)) {}

void ProcessMemoryRegionEnumerator::FinalRelease() {
  m_memory.Reset();
}

zym::result_t ProcessMemoryRegionEnumerator::Next(ProcessMemoryRegionInformation& information) {
  const zym::result_t result = m_memory->QueryRegion(m_cursor, information);
  if (result == zym::ZYM_E_INVALID_ARGUMENT) return zym::ZYM_FALSE;
  ZYM_CHECK_RESULT_AS(GetTracer(), "queryResult", result);
  m_cursor = information.baseAddress + information.size;
  return zym::ZYM_OK;
}

zym::result_t ProcessMemoryRegionEnumerator::Reset() {
  m_cursor = 0;
  return zym::ZYM_OK;
}

}  // namespace qor::process_memory_manager
