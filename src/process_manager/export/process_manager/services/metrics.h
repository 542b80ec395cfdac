// Metrics of the module, and the registry that reads them.
//
// Both services are required by the process cache, which asks for them at its creation and fails with their
// code. The metric objects are called on any thread, often, and with locks held: they must return at once and
// must not call the module.
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

// Metrics of a bounded table.
struct TableMetrics {
  objptr_t<IGauge> size;
  objptr_t<ICounter> hits;
  objptr_t<ICounter> misses;
};

// Source of a component's metric objects, which live in the host's registry.
struct IMetricSource : IObject {
  static constexpr iid_t kIid = 0x34e76fa8;

  // `component`: "process_cache" or "pending_interpreters". ZYM_OK: all three objects are set. A result of
  // ZYM_OK without one of them fails the caller.
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

  // All metrics as text. Not called by the module.
  virtual result_t GetText(types::string_t& text) = 0;
  // Sets the token for UnregisterCollector. The registry keeps a reference, and may call the collector at
  // once.
  virtual result_t RegisterCollector(ICollector* collector, std::uint64_t* token) = 0;
  // When it returns, the collector isn't running and won't be called again.
  virtual result_t UnregisterCollector(std::uint64_t token) = 0;

 protected:
  ~IMetricsRegistry() = default;
};

}  // namespace zym::telemetry
