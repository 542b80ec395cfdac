// The metrics of the module, in a registry that can be read as text.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include <prometheus/registry.h>

#include "process_manager/services/metrics.h"
#include "zym/object.h"

namespace pmhost {

// Both services over one registry. Names: process_manager_<component>_size, _hits, _misses.
class Metrics : public zym::object::Ifaces<zym::telemetry::IMetricSource, zym::telemetry::IMetricsRegistry>,
                public zym::NonCopyable {
 public:
  zym::result_t GetTableMetrics(const char* component, zym::telemetry::TableMetrics& metrics) override;
  zym::result_t GetText(zym::types::string_t& text) override;
  zym::result_t RegisterCollector(zym::telemetry::ICollector* collector, std::uint64_t* token) override;
  zym::result_t UnregisterCollector(std::uint64_t token) override;

 private:
  const std::shared_ptr<prometheus::Registry> m_registry = std::make_shared<prometheus::Registry>();

  // Held while collectors run: an unregistered one isn't running any more.
  std::mutex m_mutex;  // guards all below
  std::uint64_t m_lastToken = 0;
  std::map<std::uint64_t, zym::intrusive_ptr<zym::telemetry::ICollector>> m_collectors;
};

}  // namespace pmhost
