// Comparison of process records, field by field.
#pragma once

#include <gmock/gmock.h>

#include <iosfwd>

#include "process_manager/process_records.h"

namespace test_support {

using InnerRecord = qor::process_manager::process_cache::ProcessInformation;
using PublicRecord = system_interceptors::process_manager::ProcessInformation;

// Every field is as in `expected`; a failure names those that differ. Command lines are compared by their
// text, where one that is absent isn't an empty one.
testing::Matcher<const InnerRecord&> IsRecord(const InnerRecord& expected);
testing::Matcher<const PublicRecord&> IsRecord(const PublicRecord& expected);

}  // namespace test_support

// What a failed check prints.
namespace qor::process_manager::process_cache {
void PrintTo(const ProcessInformation& record, std::ostream* out);
}
namespace system_interceptors::process_manager {
void PrintTo(const ProcessInformation& record, std::ostream* out);
}
