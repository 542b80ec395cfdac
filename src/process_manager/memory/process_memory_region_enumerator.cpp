#include "process_manager/memory/process_memory_region_enumerator.h"

#include <limits>
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
  const std::uint64_t end = information.baseAddress + information.size;
  m_cursor = end > m_cursor && end > information.baseAddress ? end : AddressBehind(information);
  return zym::ZYM_OK;
}

// The least address that is no answer for this region any more: of a region that ends before it begins, or
// where it begins, the end leads nowhere. The kernel makes none; a procfs root of one's own may. Found by
// halves: from the cursor on, the region is the answer up to some address, and never again behind it.
std::uint64_t ProcessMemoryRegionEnumerator::AddressBehind(
    const ProcessMemoryRegionInformation& region) const {
  std::uint64_t inside = m_cursor;
  std::uint64_t behind = std::numeric_limits<std::uint64_t>::max();
  while (behind - inside > 1) {
    const std::uint64_t middle = inside + (behind - inside) / 2;
    ProcessMemoryRegionInformation found;
    const bool isInside = m_memory->QueryRegion(middle, found) == zym::ZYM_OK &&
                          found.baseAddress == region.baseAddress && found.size == region.size;
    (isInside ? inside : behind) = middle;
  }
  return behind;
}

zym::result_t ProcessMemoryRegionEnumerator::Reset() {
  m_cursor = 0;
  return zym::ZYM_OK;
}

}  // namespace qor::process_memory_manager
