// What is known of one process.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "process_manager/process_records.h"
#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/datetime.h"

namespace pmhost {

// Whatever it was read from: an object of the module, an event, or /proc. Absent, or an empty text: not
// known.
struct ProcessRecord {
  std::uint32_t pid = 0;
  std::optional<std::uint64_t> uniquePid;
  std::optional<std::uint32_t> parentPid;
  std::optional<std::uint64_t> uniqueParentPid;
  std::optional<std::uint32_t> creatorPid;
  std::optional<std::uint64_t> uniqueCreatorPid;
  std::optional<std::uint32_t> sessionId;
  std::optional<zym::datetime_t> startTime;
  std::optional<zym::datetime_t> exitTime;
  zym::types::string16_t imagePath;
  zym::types::string16_t workingDirectory;
  zym::types::string16_t commandLine;
  std::optional<std::uint32_t> userId;  // the real one
  std::optional<std::uint32_t> flags;   // qor::ProcessFlags
  std::uint32_t state = qor::kStarting;
};

// The module's records say "not known" by all ones, and by a time of 0.
template <class T>
std::optional<T> UnlessAllOnes(std::optional<T> value) {
  return value == static_cast<T>(-1) ? std::nullopt : value;
}
inline std::optional<zym::datetime_t> UnlessZero(zym::datetime_t time) {
  return time != 0 ? std::optional(time) : std::nullopt;
}

ProcessRecord FromModule(const system_interceptors::process_manager::ProcessInformation& known);

// "starting", "created" or "terminated".
std::string_view StateName(std::uint32_t state);

}  // namespace pmhost
