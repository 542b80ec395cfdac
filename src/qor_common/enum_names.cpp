#include "qor_common/enum_names.h"

#include "qor_common/enum_family.h"

namespace qor {
namespace {

// All families, built once.
struct Families {
  EnumFamily reportFeatures{"ReportFeatures",
                            "ReportFeatures::Type",
                            {{ReportFeatures::RealTimeProtection, "RealTimeProtection"},
                             {ReportFeatures::FileIntegrity, "FileIntegrity"},
                             {ReportFeatures::JournalMonitoring, "JournalMonitoring"},
                             {ReportFeatures::MemoryScanning, "MemoryScanning"},
                             {ReportFeatures::ProcessMonitoring, "ProcessMonitoring"}}};
  EnumFamily reportFeatureTechs{"ReportFeatureTechs",
                                "ReportFeatureTechs::Type",
                                {{ReportFeatureTechs::Netlink, "Netlink"},
                                 {ReportFeatureTechs::Kprobes, "Kprobes"},
                                 {ReportFeatureTechs::Fanotify, "Fanotify"},
                                 {ReportFeatureTechs::Journal, "Journal"},
                                 {ReportFeatureTechs::ExploitPrevention, "ExploitPrevention"}}};
  EnumFamily taskState{"TaskState",
                       "TaskState::Type",
                       {{TaskState::Unknown, "Unknown"},
                        {TaskState::Created, "Created"},
                        {TaskState::Starting, "Starting"},
                        {TaskState::Running, "Running"},
                        {TaskState::Pausing, "Pausing"},
                        {TaskState::Paused, "Paused"},
                        {TaskState::Stopped, "Stopped"},
                        {TaskState::Completed, "Completed"}}};
  EnumFamily eventName{
      "EventName", "EventName::Type", {{EventName::ObjectProcessingError, "ObjectProcessingError"}}};
  EnumFamily boolean{"Boolean", "bool", {{Boolean::No, "No"}, {Boolean::Yes, "Yes"}}};
};

const Families& GetFamilies() {
  static const Families families;
  return families;
}

// Built while the program loads, so that no lookup pays for it.
[[maybe_unused]] const Families& g_families = GetFamilies();

}  // namespace

std::string EnumToString(ReportFeatures::Type value) {
  static const EnumFamily& family = GetFamilies().reportFeatures;
  return family.NameOf(value);
}
std::string EnumToString(ReportFeatureTechs::Type value) {
  static const EnumFamily& family = GetFamilies().reportFeatureTechs;
  return family.NameOf(value);
}
std::string EnumToString(TaskState::Type value) {
  static const EnumFamily& family = GetFamilies().taskState;
  return family.NameOf(value);
}
std::string EnumToString(EventName::Type value) {
  static const EnumFamily& family = GetFamilies().eventName;
  return family.NameOf(value);
}
std::string detail::BooleanToString(bool value) {
  static const EnumFamily& family = GetFamilies().boolean;
  return family.NameOf(value ? Boolean::Yes : Boolean::No);
}

void StringToEnum(ReportFeatures::Type& value, std::string_view text) {
  static const EnumFamily& family = GetFamilies().reportFeatures;
  value = static_cast<ReportFeatures::Type>(family.ValueOf(text));
}
void StringToEnum(ReportFeatureTechs::Type& value, std::string_view text) {
  static const EnumFamily& family = GetFamilies().reportFeatureTechs;
  value = static_cast<ReportFeatureTechs::Type>(family.ValueOf(text));
}
void StringToEnum(TaskState::Type& value, std::string_view text) {
  static const EnumFamily& family = GetFamilies().taskState;
  value = static_cast<TaskState::Type>(family.ValueOf(text));
}
void StringToEnum(EventName::Type& value, std::string_view text) {
  static const EnumFamily& family = GetFamilies().eventName;
  value = static_cast<EventName::Type>(family.ValueOf(text));
}
void StringToEnum(bool& value, std::string_view text) {
  static const EnumFamily& family = GetFamilies().boolean;
  value = static_cast<bool>(family.ValueOf(text));
}

}  // namespace qor
