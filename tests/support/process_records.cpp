#include "support/process_records.h"

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "zym/utf.h"

namespace test_support {
namespace {

using zym::types::string16_t;

std::string Text(std::u16string_view value) {
  const std::optional<std::string> text = zym::Utf16ToUtf8(value);
  return text ? '"' + *text + '"' : testing::PrintToString(std::u16string(value));
}
std::string Text(const std::shared_ptr<const string16_t>& value) {
  return value ? Text(*value) : "none";
}
template <class T>
std::string Text(const T& value) {
  return testing::PrintToString(value);
}
std::string Text(const string16_t& value) {
  return Text(std::u16string_view(value));
}

bool AreEqual(const std::shared_ptr<const string16_t>& a, const std::shared_ptr<const string16_t>& b) {
  return a && b ? *a == *b : a == b;
}
template <class T>
bool AreEqual(const T& a, const T& b) {
  return a == b;
}

// Calls `visit` with the name of each field and the field in each of the records, in their order.
template <class Visit, class... Records>
void VisitCommonFields(Visit visit, const Records&... records) {
#define VISIT(field) visit(#field, records.field...)
  VISIT(pid);
  VISIT(creatorPid);
  VISIT(parentPid);
  VISIT(uniquePid);
  VISIT(creatorUniquePid);
  VISIT(parentUniquePid);
  VISIT(sessionId);
  VISIT(startTime);
  VISIT(exitTime);
  VISIT(imagePath);
  VISIT(workingDirectory);
  VISIT(commandLine);
  VISIT(flags);
  VISIT(state);
}
template <class Visit, class... Records>
void VisitFields(Visit visit, const InnerRecord& record, const Records&... more) {
  VisitCommonFields(visit, record, more...);
  const auto visitRest = [&visit](const auto&... records) {
    VISIT(realUserId);
    VISIT(effectiveUserId);
    VISIT(realGroupId);
    VISIT(effectiveGroupId);
    VISIT(environment);
    VISIT(mountNamespaceId);
  };
  visitRest(record, more...);
}
template <class Visit, class... Records>
void VisitFields(Visit visit, const PublicRecord& record, const Records&... more) {
  VisitCommonFields(visit, record, more...);
  const auto visitRest = [&visit](const auto&... records) { VISIT(userId); };
  visitRest(record, more...);
}
#undef VISIT

template <class Record>
class RecordMatcher {
 public:
  using is_gtest_matcher = void;

  explicit RecordMatcher(const Record& expected) : m_expected(expected) {}

  bool MatchAndExplain(const Record& actual, std::ostream* out) const {
    bool matches = true;
    const auto compare = [&](const char* name, const auto& value, const auto& expected) {
      if (AreEqual(value, expected)) return;
      matches = false;
      if (out != nullptr) *out << "\n  " << name << " is " << Text(value) << ", not " << Text(expected);
    };
    VisitFields(compare, actual, m_expected);
    return matches;
  }
  void DescribeTo(std::ostream* out) const { *out << "is the record " << testing::PrintToString(m_expected); }
  void DescribeNegationTo(std::ostream* out) const {
    *out << "is another record than " << testing::PrintToString(m_expected);
  }

 private:
  const Record m_expected;
};

template <class Record>
void Print(const Record& record, std::ostream& out) {
  const char* separator = "{";
  VisitFields(
      [&](const char* name, const auto& value) {
        out << separator << name << ' ' << Text(value);
        separator = ", ";
      },
      record);
  out << '}';
}

}  // namespace

testing::Matcher<const InnerRecord&> IsRecord(const InnerRecord& expected) {
  return RecordMatcher<InnerRecord>(expected);
}
testing::Matcher<const PublicRecord&> IsRecord(const PublicRecord& expected) {
  return RecordMatcher<PublicRecord>(expected);
}

}  // namespace test_support

namespace qor::process_manager::process_cache {
void PrintTo(const ProcessInformation& record, std::ostream* out) {
  test_support::Print(record, *out);
}
}  // namespace qor::process_manager::process_cache

namespace system_interceptors::process_manager {
void PrintTo(const ProcessInformation& record, std::ostream* out) {
  test_support::Print(record, *out);
}
}  // namespace system_interceptors::process_manager
