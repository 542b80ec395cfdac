// What is known of one process beyond what a list of processes shows.
#pragma once

#include <cstdint>
#include <optional>

#include "host/host.h"
#include "process_manager/process_control.h"
#include "zym/containers.h"

namespace pmhost {

// Absent: not known.
struct ProcessDetails {
  std::optional<std::uint32_t> effectiveUserId;
  std::optional<std::uint32_t> realGroupId;
  std::optional<std::uint32_t> effectiveGroupId;
  std::optional<zym::types::vector_t<zym::types::string_t>> environment;
  std::optional<std::uint64_t> mountNamespace;
  std::optional<bool> hostMountNamespace;
  std::optional<zym::types::string16_t> localization;
  std::optional<std::uint32_t> attributes;
  std::optional<system_interceptors::process_manager::ProcessTimes> times;
  std::optional<system_interceptors::process_manager::ProcessIoCounters> io;
};

// Of the process that has `pid` now; 0 is the kernel, of which neither environment nor counters are known.
// What can't be read, because the process has ended or a right is missing, is absent. Throws Failure.
ProcessDetails ReadDetails(Host& host, std::uint32_t pid);

}  // namespace pmhost
