// Plain records of what is known of a process.
//
// A record is made of groups, which are its bases: a field goes by its own name (`record.pid`), and a group
// is copied as a whole: AssignGroup<ProcessIds>(to, from).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/datetime.h"

namespace qor::process_manager {

// Who a process is, and from whom it comes. A creator or parent that doesn't exist is all ones.
struct ProcessIds {
  PidType pid = 0;
  PidType creatorPid = 0;  // the parent at a fork, the pid itself after an exec
  PidType parentPid = 0;
  UniquePidType uniquePid = 0;
  UniquePidType creatorUniquePid = 0;
  UniquePidType parentUniquePid = 0;
};

// The session of a process, and when it ran.
struct ProcessLifetime {
  std::uint32_t sessionId = 0;
  zym::datetime_t startTime = 0;
  zym::datetime_t exitTime = 0;  // 0 while alive
};

// What a process runs. Copies share the command line, which is never changed in place.
struct ProcessImage {
  zym::types::string16_t imagePath;
  zym::types::string16_t workingDirectory;
  std::shared_ptr<const zym::types::string16_t> commandLine;  // null: none was read
  std::uint32_t flags = 0;                                    // ProcessFlags
  std::uint32_t state = kStarting;                            // ProcessState
};

// As whom a process acts. Each is absent until it is known.
struct ProcessCredentials {
  std::optional<std::uint32_t> realUserId;  // IPosixProcessInformation says whose it is
  std::optional<std::uint32_t> effectiveUserId;
  std::optional<std::uint32_t> realGroupId;
  std::optional<std::uint32_t> effectiveGroupId;
};

// Copies one group of a record; a record that is moved from gives its group up.
template <class Group>
void AssignGroup(std::type_identity_t<Group>& to, std::type_identity_t<Group> from) {
  to = std::move(from);
}

namespace process_cache {

// What the cache keeps for each image, and what a read of /proc fills.
struct ProcessInformation : ProcessIds, ProcessLifetime, ProcessImage, ProcessCredentials {
  zym::types::vector_t<zym::types::string_t> environment;  // "NAME=value", as the process has it
  std::uint64_t mountNamespaceId = kNoMountNamespace;      // the inode of /proc/<pid>/ns/mnt
};

}  // namespace process_cache
}  // namespace qor::process_manager

namespace system_interceptors::process_manager {

// The copy that clients get.
struct ProcessInformation : qor::process_manager::ProcessIds, qor::process_manager::ProcessLifetime {
  zym::types::string16_t imagePath;
  zym::types::string16_t workingDirectory;
  zym::types::string16_t commandLine;
  std::uint32_t userId = 0;  // as IPosixProcessInformation::GetRealUserId; 0 when it isn't known
  std::uint32_t flags = 0;   // ProcessFlags
  std::uint32_t state = 0;   // ProcessState
};

// The public record of an inner one.
inline ProcessInformation ToPublicRecord(
    const qor::process_manager::process_cache::ProcessInformation& info) {
  ProcessInformation record;
  qor::process_manager::AssignGroup<qor::process_manager::ProcessIds>(record, info);
  qor::process_manager::AssignGroup<qor::process_manager::ProcessLifetime>(record, info);
  record.imagePath = info.imagePath;
  record.workingDirectory = info.workingDirectory;
  if (info.commandLine) record.commandLine = *info.commandLine;
  record.userId = info.realUserId.value_or(0);
  record.flags = info.flags;
  record.state = info.state;
  return record;
}

}  // namespace system_interceptors::process_manager
