// The text of a process in traces and events.
#pragma once

#include <string>

#include "process_manager/process_records.h"
#include "zym/tracer.h"

namespace qor::process_manager {

// "pid: 1, upid: ...". The command line and the environment are shown only if `filter` lets sensitive text
// through; without a filter they are held back.
std::string DescribeProcess(const process_cache::ProcessInformation& info,
                            zym::ITracerCategoryFilter* filter);

}  // namespace qor::process_manager
