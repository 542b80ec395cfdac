// Enumerations with a text name for each value, for events and reports that are turned into text and back.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

namespace qor {

// The families that this module uses; a further one is a namespace here and a table in enum_names.cpp.
namespace ReportFeatures {
enum Type : std::uint32_t {
  RealTimeProtection = 1,
  FileIntegrity = 2,
  JournalMonitoring = 3,
  MemoryScanning = 5,
  ProcessMonitoring = 8,
};
}
namespace ReportFeatureTechs {
enum Type : std::uint32_t { Netlink = 1, Kprobes = 2, Fanotify = 3, Journal = 4, ExploitPrevention = 9 };
}
namespace TaskState {
enum Type : std::uint32_t {
  Unknown = 0,
  Created = 1,
  Starting = 2,
  Running = 3,
  Pausing = 4,
  Paused = 5,
  Stopped = 6,
  Completed = 7,
};
}
namespace EventName {
enum Type : std::uint32_t { ObjectProcessingError = 1 };
}
namespace Boolean {
enum Type : std::uint32_t { No = 0, Yes = 1 };
}

namespace detail {
std::string BooleanToString(bool value);
}

// Both throw std::runtime_error for what isn't in the family's table: "EnumToString, invalid 'ReportFeatures'
// enum value: " and the value in decimal; "There is no such 'ReportFeatures::Type' value: " ("... 'bool'
// value: " for bool) and the text, with `value` left alone. Names are compared exactly, with case. Any
// thread: the tables never change.
std::string EnumToString(ReportFeatures::Type value);
std::string EnumToString(ReportFeatureTechs::Type value);
std::string EnumToString(TaskState::Type value);
std::string EnumToString(EventName::Type value);
// For bool alone: a number, or an enumeration without a family, must not become "Yes".
std::string EnumToString(std::same_as<bool> auto value) {
  return detail::BooleanToString(value);
}
void StringToEnum(ReportFeatures::Type& value, std::string_view text);
void StringToEnum(ReportFeatureTechs::Type& value, std::string_view text);
void StringToEnum(TaskState::Type& value, std::string_view text);
void StringToEnum(EventName::Type& value, std::string_view text);
void StringToEnum(bool& value, std::string_view text);

}  // namespace qor
