// The columns of a process, in the order in which every object with a process has them.
#pragma once

#include <vector>

#include "host/output/table.h"
#include "host/process_record.h"

namespace pmhost {

const std::vector<Column<ProcessRecord>>& ProcessColumns();

}  // namespace pmhost
