#include "host/services/metrics.h"

#include <prometheus/gauge.h>
#include <prometheus/text_serializer.h>

#include <atomic>
#include <string>

#include "zym/exception_to_result.h"

namespace pmhost {
namespace {

class Gauge : public zym::object::Ifaces<zym::telemetry::IGauge> {
 public:
  Gauge(std::shared_ptr<prometheus::Registry> registry, prometheus::Gauge& gauge)
      : m_registry(std::move(registry)), m_gauge(gauge) {}
  void Set(std::int64_t value) override { m_gauge.Set(static_cast<double>(value)); }

 private:
  const std::shared_ptr<prometheus::Registry> m_registry;  // keeps the gauge alive
  prometheus::Gauge& m_gauge;
};

// A gauge too: the library's counters never go back to 0, and these may.
class Counter : public zym::object::Ifaces<zym::telemetry::ICounter> {
 public:
  Counter(std::shared_ptr<prometheus::Registry> registry, prometheus::Gauge& gauge)
      : m_registry(std::move(registry)), m_gauge(gauge) {}
  void Increment() override { m_gauge.Increment(); }
  void Reset() override { m_gauge.Set(0); }

 private:
  const std::shared_ptr<prometheus::Registry> m_registry;
  prometheus::Gauge& m_gauge;
};

}  // namespace

zym::result_t Metrics::GetTableMetrics(const char* component, zym::telemetry::TableMetrics& metrics) try {
  const std::string prefix = std::string("process_manager_") + component;
  const auto add = [&](const char* suffix, const char* help) -> prometheus::Gauge& {
    return prometheus::BuildGauge().Name(prefix + suffix).Help(help).Register(*m_registry).Add({});
  };
  metrics = {
      .size = zym::CreateObject<Gauge>(m_registry, add("_size", "Entries in the table")),
      .hits = zym::CreateObject<Counter>(m_registry, add("_hits", "Finds that found something")),
      .misses = zym::CreateObject<Counter>(m_registry, add("_misses", "Finds that found nothing")),
  };
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionToResult(nullptr);
}

zym::result_t Metrics::GetText(zym::types::string_t& text) try {
  const std::scoped_lock lock(m_mutex);
  for (const auto& [token, collector] : m_collectors) collector->Collect();
  const std::string serialized = prometheus::TextSerializer().Serialize(m_registry->Collect());
  text.assign(serialized.begin(), serialized.end());
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionToResult(nullptr);
}

zym::result_t Metrics::RegisterCollector(zym::telemetry::ICollector* collector, std::uint64_t* token) try {
  const std::scoped_lock lock(m_mutex);
  m_collectors.emplace(m_lastToken + 1, zym::intrusive_ptr<zym::telemetry::ICollector>(collector));
  *token = ++m_lastToken;
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionToResult(nullptr);
}

zym::result_t Metrics::UnregisterCollector(std::uint64_t token) {
  const std::scoped_lock lock(m_mutex);
  return m_collectors.erase(token) != 0 ? zym::ZYM_OK : zym::ZYM_E_NOT_FOUND;
}

}  // namespace pmhost
