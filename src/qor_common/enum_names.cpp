#include "qor_common/enum_names.h"

#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index_container.hpp>
#include <initializer_list>
#include <stdexcept>

namespace qor {
namespace {

struct Row {
  std::uint32_t value;
  std::string name;
};

// Value to name and name to value.
class Family {
 public:
  Family(std::string name, std::string typeName, std::initializer_list<Row> rows)
      : m_name(std::move(name)), m_typeName(std::move(typeName)) {
    for (const Row& row : rows) m_rows.insert(row);  // a duplicate is ignored
  }

  [[nodiscard]] const std::string& NameOf(std::uint32_t value) const {
    const auto& byValue = m_rows.get<0>();
    const auto found = byValue.find(value);
    if (found == byValue.end())
      throw std::runtime_error("EnumToString, invalid '" + m_name + "' enum value: " + std::to_string(value));
    return found->name;
  }

  [[nodiscard]] std::uint32_t ValueOf(std::string_view text) const {
    const auto& byName = m_rows.get<1>();
    const auto found = byName.find(std::string(text));
    if (found == byName.end())
      throw std::runtime_error("There is no such '" + m_typeName + "' value: " + std::string(text));
    return found->value;
  }

 private:
  using Rows = boost::multi_index_container<
      Row,
      boost::multi_index::indexed_by<
          boost::multi_index::ordered_unique<boost::multi_index::member<Row, std::uint32_t, &Row::value>>,
          boost::multi_index::hashed_unique<boost::multi_index::member<Row, std::string, &Row::name>>>>;

  std::string m_name;
  std::string m_typeName;
  Rows m_rows;
};

// All families, built once.
struct Families {
  Family reportFeatures{"ReportFeatures",
                        "ReportFeatures::Type",
                        {{ReportFeatures::RealTimeProtection, "RealTimeProtection"},
                         {ReportFeatures::FileIntegrity, "FileIntegrity"},
                         {ReportFeatures::JournalMonitoring, "JournalMonitoring"},
                         {ReportFeatures::MemoryScanning, "MemoryScanning"},
                         {ReportFeatures::ProcessMonitoring, "ProcessMonitoring"}}};
  Family reportFeatureTechs{"ReportFeatureTechs",
                            "ReportFeatureTechs::Type",
                            {{ReportFeatureTechs::Netlink, "Netlink"},
                             {ReportFeatureTechs::Kprobes, "Kprobes"},
                             {ReportFeatureTechs::Fanotify, "Fanotify"},
                             {ReportFeatureTechs::Journal, "Journal"},
                             {ReportFeatureTechs::ExploitPrevention, "ExploitPrevention"}}};
  Family taskState{"TaskState",
                   "TaskState::Type",
                   {{TaskState::Unknown, "Unknown"},
                    {TaskState::Created, "Created"},
                    {TaskState::Starting, "Starting"},
                    {TaskState::Running, "Running"},
                    {TaskState::Pausing, "Pausing"},
                    {TaskState::Paused, "Paused"},
                    {TaskState::Stopped, "Stopped"},
                    {TaskState::Completed, "Completed"}}};
  Family eventName{
      "EventName", "EventName::Type", {{EventName::ObjectProcessingError, "ObjectProcessingError"}}};
  Family boolean{"Boolean", "bool", {{Boolean::No, "No"}, {Boolean::Yes, "Yes"}}};
};

const Families& GetFamilies() {
  static const Families families;
  return families;
}

// Built while the program loads, so that no lookup pays for it.
[[maybe_unused]] const Families& g_families = GetFamilies();

template <class E>
void Assign(E& value, const Family& family, std::string_view text) {
  value = static_cast<E>(family.ValueOf(text));
}

}  // namespace

std::string EnumToString(ReportFeatures::Type value) {
  return GetFamilies().reportFeatures.NameOf(value);
}
std::string EnumToString(ReportFeatureTechs::Type value) {
  return GetFamilies().reportFeatureTechs.NameOf(value);
}
std::string EnumToString(TaskState::Type value) {
  return GetFamilies().taskState.NameOf(value);
}
std::string EnumToString(EventName::Type value) {
  return GetFamilies().eventName.NameOf(value);
}
std::string EnumToString(bool value) {
  return GetFamilies().boolean.NameOf(value ? Boolean::Yes : Boolean::No);
}

void StringToEnum(ReportFeatures::Type& value, std::string_view text) {
  Assign(value, GetFamilies().reportFeatures, text);
}
void StringToEnum(ReportFeatureTechs::Type& value, std::string_view text) {
  Assign(value, GetFamilies().reportFeatureTechs, text);
}
void StringToEnum(TaskState::Type& value, std::string_view text) {
  Assign(value, GetFamilies().taskState, text);
}
void StringToEnum(EventName::Type& value, std::string_view text) {
  Assign(value, GetFamilies().eventName, text);
}
void StringToEnum(bool& value, std::string_view text) {
  Assign(value, GetFamilies().boolean, text);
}

}  // namespace qor
