// A process as it is shown: its facts, and how they are written as JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "host/output/json.h"
#include "host/output/time_text.h"
#include "process_manager/types.h"

namespace pmhost {

// Views are into whatever the facts were taken from. Absent: not known.
struct ShownProcess {
  std::uint32_t pid = 0;
  std::optional<std::uint64_t> uniquePid;
  std::optional<std::uint32_t> parentPid;
  std::optional<std::uint64_t> uniqueParentPid;
  std::optional<std::uint32_t> creatorPid;
  std::optional<std::uint64_t> uniqueCreatorPid;
  std::optional<std::uint32_t> sessionId;
  std::optional<zym::datetime_t> startTime;
  std::optional<zym::datetime_t> exitTime;
  std::optional<std::u16string_view> imagePath;
  std::optional<std::u16string_view> workingDirectory;
  std::optional<std::u16string_view> commandLine;
  std::optional<std::uint32_t> userId;  // the real one
  std::optional<std::uint32_t> flags;   // qor::ProcessFlags
  std::uint32_t state = qor::kStarting;
};

// Records say "not known" by all ones, by a time of 0 and by an empty text.
template <class T>
std::optional<T> UnlessAllOnes(std::optional<T> value) {
  return value == static_cast<T>(-1) ? std::nullopt : value;
}
inline std::optional<zym::datetime_t> UnlessZero(zym::datetime_t time) {
  return time != 0 ? std::optional(time) : std::nullopt;
}
inline std::optional<std::u16string_view> UnlessEmpty(std::u16string_view text) {
  return !text.empty() ? std::optional(text) : std::nullopt;
}

// Adds the members that every object with a process has, in their order.
void WriteProcess(JsonLine& line, TimeText& time, const ShownProcess& process);

// "starting", "created" or "terminated".
const char* StateName(std::uint32_t state);

}  // namespace pmhost
