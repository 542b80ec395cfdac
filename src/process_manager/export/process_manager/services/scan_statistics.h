// Statistics of scans: which images run. Required. Any thread.
#pragma once

#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

// Counts which images run, for the statistics of scans.
struct IScanStatisticsCollector : zym::IObject {
  static constexpr zym::iid_t kIid = 0x97074f39;

  virtual zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&& path) = 0;

 protected:
  ~IScanStatisticsCollector() = default;
};

}  // namespace qor
