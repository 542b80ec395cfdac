// What is known of a process, as plain values.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/datetime.h"

namespace qor::process_manager::process_cache {

// What the cache keeps for each image, and what a read of /proc fills. Copies share the command line, which
// is never changed in place.
struct ProcessInformation {
  PidType pid = 0;
  PidType creatorPid = 0;  // the parent at a fork, the pid itself after an exec; all ones when there is none
  PidType parentPid = 0;
  UniquePidType uniquePid = 0;
  UniquePidType creatorUniquePid = 0;
  UniquePidType parentUniquePid = 0;
  std::uint32_t sessionId = 0;
  zym::datetime_t startTime = 0;
  zym::datetime_t exitTime = 0;  // 0 while alive
  zym::types::string16_t imagePath;
  zym::types::string16_t workingDirectory;
  std::shared_ptr<const zym::types::string16_t> commandLine;  // null: none was read
  std::uint32_t flags = 0;                                    // ProcessFlags
  std::uint32_t state = kStarting;                            // ProcessState
  std::optional<std::uint32_t> realUserId;                    // IPosixProcessInformation says whose it is
  std::optional<std::uint32_t> effectiveUserId;               // these too are absent until they are known
  std::optional<std::uint32_t> realGroupId;
  std::optional<std::uint32_t> effectiveGroupId;
  zym::types::vector_t<zym::types::string_t> environment;  // "NAME=value", as the process has it
  std::uint64_t mountNamespaceId = kNoMountNamespace;      // the inode of /proc/<pid>/ns/mnt
};

}  // namespace qor::process_manager::process_cache

namespace system_interceptors::process_manager {

// The copy that clients get.
struct ProcessInformation {
  std::uint32_t pid = 0;
  std::uint32_t creatorPid = 0;
  std::uint32_t parentPid = 0;
  std::uint64_t uniquePid = 0;
  std::uint64_t creatorUniquePid = 0;
  std::uint64_t parentUniquePid = 0;
  std::uint32_t sessionId = 0;
  zym::datetime_t startTime = 0;
  zym::datetime_t exitTime = 0;
  zym::types::string16_t imagePath;
  zym::types::string16_t workingDirectory;
  zym::types::string16_t commandLine;
  std::uint32_t userId = 0;  // as IPosixProcessInformation::GetRealUserId; 0 when it isn't known
  std::uint32_t flags = 0;
  std::uint32_t state = 0;
};

// The public record of an inner one.
inline ProcessInformation ToPublicRecord(
    const qor::process_manager::process_cache::ProcessInformation& info) {
  return {
      .pid = info.pid,
      .creatorPid = info.creatorPid,
      .parentPid = info.parentPid,
      .uniquePid = info.uniquePid,
      .creatorUniquePid = info.creatorUniquePid,
      .parentUniquePid = info.parentUniquePid,
      .sessionId = info.sessionId,
      .startTime = info.startTime,
      .exitTime = info.exitTime,
      .imagePath = info.imagePath,
      .workingDirectory = info.workingDirectory,
      .commandLine = info.commandLine ? *info.commandLine : zym::types::string16_t(),
      .userId = info.realUserId.value_or(0),
      .flags = info.flags,
      .state = info.state,
  };
}

}  // namespace system_interceptors::process_manager
