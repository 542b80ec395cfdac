// Collector of the images that run, for the statistics of scans.
//
// Required by the interceptor at its creation. Called on the module's worker thread, once for each new image
// that has a file and isn't the host's own work.
#pragma once

#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

// Any thread.
struct IScanStatisticsCollector : zym::IObject {
  static constexpr zym::iid_t kIid = 0x97074f39;

  // A failure is traced, and changes nothing else.
  virtual zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&& path) = 0;

 protected:
  ~IScanStatisticsCollector() = default;
};

}  // namespace qor
