// Metrics of the module, and the registry that reads them. Required. Any thread.
#pragma once

#include <cstdint>

#include "zym/containers.h"
#include "zym/intrusive_ptr.h"
#include "zym/iobject.h"

namespace zym::telemetry {

struct IGauge : IObject {
  virtual void Set(std::int64_t value) = 0;

 protected:
  ~IGauge() = default;
};

struct ICounter : IObject {
  virtual void Increment() = 0;
  virtual void Reset() = 0;

 protected:
  ~ICounter() = default;
};

// What a bounded table tells of itself.
struct TableMetrics {
  objptr_t<IGauge> size;
  objptr_t<ICounter> hits;
  objptr_t<ICounter> misses;
};

// Gives the metric objects of a component, which live in the host's registry.
struct IMetricSource : IObject {
  static constexpr iid_t kIid = 0x34e76fa8;

  // `component`: "process_cache" or "pending_interpreters". All three objects are given, or the call fails.
  virtual result_t GetTableMetrics(const char* component, TableMetrics& metrics) = 0;

 protected:
  ~IMetricSource() = default;
};

// Called by the registry when somebody wants to read, on any thread.
struct ICollector : IObject {
  virtual void Collect() = 0;

 protected:
  ~ICollector() = default;
};

struct IMetricsRegistry : IObject {
  static constexpr iid_t kIid = 0x1d40f599;

  // Not called by the module: all metrics as text.
  virtual result_t GetText(types::string_t& text) = 0;
  // Gives a token for the opposite operation. The registry keeps a reference.
  virtual result_t RegisterCollector(ICollector* collector, std::uint64_t* token) = 0;
  // When it returns, the collector isn't running and won't be called again.
  virtual result_t UnregisterCollector(std::uint64_t token) = 0;

 protected:
  ~IMetricsRegistry() = default;
};

}  // namespace zym::telemetry
