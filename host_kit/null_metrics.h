// Metrics that nobody reads.
#pragma once

#include <cstdint>

#include "process_manager/services/metrics.h"
#include "zym/object.h"

namespace host_kit {

// Both services of metrics. Keeps no value and calls no collector. Any thread.
class NullMetrics
    : public zym::object::Ifaces<zym::telemetry::IMetricSource, zym::telemetry::IMetricsRegistry> {
 public:
  zym::result_t GetTableMetrics(const char* component, zym::telemetry::TableMetrics& metrics) override;
  // Empties `text`.
  zym::result_t GetText(zym::types::string_t& text) override;
  zym::result_t RegisterCollector(zym::telemetry::ICollector* collector, std::uint64_t* token) override;
  zym::result_t UnregisterCollector(std::uint64_t token) override;
};

}  // namespace host_kit
