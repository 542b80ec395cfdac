#include "host_kit/null_metrics.h"

#include "zym/exception_to_result.h"

namespace host_kit {
namespace {

class NullGauge : public zym::object::Ifaces<zym::telemetry::IGauge> {
 public:
  void Set(std::int64_t) override {}
};

class NullCounter : public zym::object::Ifaces<zym::telemetry::ICounter> {
 public:
  void Increment() override {}
  void Reset() override {}
};

}  // namespace

zym::result_t NullMetrics::GetTableMetrics(const char*, zym::telemetry::TableMetrics& metrics) try {
  metrics = {
      .size = zym::CreateObject<NullGauge>(),
      .hits = zym::CreateObject<NullCounter>(),
      .misses = zym::CreateObject<NullCounter>(),
  };
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionToResult(nullptr);
}

zym::result_t NullMetrics::GetText(zym::types::string_t& text) {
  text.clear();
  return zym::ZYM_OK;
}

zym::result_t NullMetrics::RegisterCollector(zym::telemetry::ICollector*, std::uint64_t* token) {
  *token = 0;
  return zym::ZYM_OK;
}

zym::result_t NullMetrics::UnregisterCollector(std::uint64_t) {
  return zym::ZYM_OK;
}

}  // namespace host_kit
