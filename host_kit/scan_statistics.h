// How many images ran, for the statistics of scans.
#pragma once

#include <atomic>
#include <cstdint>

#include "process_manager/services/scan_statistics.h"
#include "zym/object.h"

namespace host_kit {

// Counts and keeps no path, so that it never grows. Any thread.
class ScanStatistics : public zym::object::Ifaces<qor::IScanStatisticsCollector> {
 public:
  zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&&) override {
    ++m_count;
    return zym::ZYM_OK;
  }

  // The images that were reported so far, each as often as it was.
  [[nodiscard]] std::uint64_t GetCount() const noexcept { return m_count; }

 private:
  std::atomic<std::uint64_t> m_count{0};
};

}  // namespace host_kit
