// The regions of a memory, looked up in its mappings.
#pragma once

#include <cstdint>

#include "process_manager/proc_parser.h"
#include "process_manager/process_memory.h"
#include "zym/containers.h"
#include "zym/tracer.h"

namespace qor::process_memory_manager {

using system_interceptors::process_memory_manager::ProcessMemoryRegionInformation;

// IProcessMemory::QueryRegion over `maps`. Where a mapping ends before `address` although it begins at or
// above it, which no mapping of the kernel's does, the answer is the gap behind it.
zym::result_t QueryRegion(zym::ITracer* tracer, const procfs::Maps& maps, std::uint64_t address,
                          ProcessMemoryRegionInformation& information);

// The mapping that begins exactly at `begin`; of several, the first. Throws std::out_of_range.
const procfs::MapsEntry& MappingAt(const procfs::Maps& maps, std::uint64_t begin);

// IProcessMemory::QueryMappedFilePath over `maps`.
zym::result_t QueryMappedFilePath(zym::ITracer* tracer, const procfs::Maps& maps, std::uint64_t address,
                                  zym::types::string16_t& path);

}  // namespace qor::process_memory_manager
