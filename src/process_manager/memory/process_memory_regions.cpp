#include "process_manager/memory/process_memory_regions.h"

#include <stdexcept>

#include "zym/exception.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"
#include "zym/utf.h"

namespace qor::process_memory_manager {
namespace {

using namespace system_interceptors::process_memory_manager;

ProcessMemoryRegionInformation Mapped(const procfs::MapsEntry& entry) {
  return {
      .baseAddress = entry.begin,
      .allocationBase = entry.begin,
      .size = entry.end - entry.begin,
      .protection = entry.protection,
      .allocationProtection = entry.protection,
      .state = kRegionIsMapped,
      .type = kMappedRegionType,
  };
}

ProcessMemoryRegionInformation Gap(const procfs::MapsEntry& entry, const procfs::MapsEntry& next) {
  return {
      .baseAddress = entry.end,
      .allocationBase = entry.end,
      .size = next.begin - entry.begin,
      .protection = protection::kNoAccess,
      .allocationProtection = protection::kNoAccess,
      .state = kRegionIsGap,
      .type = kNoRegionType,
  };
}

}  // namespace

const procfs::MapsEntry& MappingAt(const procfs::Maps& maps, std::uint64_t begin) {
  const auto found = maps.lower_bound(begin);
  if (found == maps.end() || found->first != begin) throw std::out_of_range("map::at");
  return *found->second;
}

zym::result_t QueryRegion(zym::ITracer* tracer, const procfs::Maps& maps, std::uint64_t address,
                          ProcessMemoryRegionInformation& information) {
  // Meant: the first mapping that begins at or above the address, and not the one that holds it. Callers walk
  // by this rule.
  const auto found = maps.lower_bound(address);
  if (found == maps.end()) return zym::ZYM_E_INVALID_ARGUMENT;
  const procfs::MapsEntry& entry = *found->second;
  if (entry.end >= address) {
    information = Mapped(entry);
  } else {
    const auto next = maps.upper_bound(address);
    if (next == maps.end()) return zym::ZYM_E_INVALID_ARGUMENT;
    information = Gap(entry, *next->second);
  }
  // The trace names the operation whose work this is.
  ZYM_TRACE(tracer, zym::trace::kCall,
            "ProcessMemory::QueryRegion(): "
                << information.baseAddress << " " << information.size << ", state: " << information.state
                << ", type: " << information.type << ", protection: " << information.protection);
  return zym::ZYM_OK;
}

zym::result_t QueryMappedFilePath(zym::ITracer* tracer, const procfs::Maps& maps, std::uint64_t address,
                                  zym::types::string16_t& path) try {
  ProcessMemoryRegionInformation region;
  ZYM_CHECK_RESULT_OR_THROW(QueryRegion(tracer, maps, address, region),
                            "Failed to query memory region at address" << address);
  path = zym::RequireUtf16(MappingAt(maps, region.baseAddress).path);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, __func__);
}

}  // namespace qor::process_memory_manager
