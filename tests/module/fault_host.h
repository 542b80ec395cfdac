// A host for tests in which memory fails: what it does for itself neither counts nor fails.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "module/heap_faults.h"
#include "module/loaded_module.h"
#include "module/module_host.h"
#include "process_manager/entry.h"
#include "process_manager/interceptor.h"
#include "process_manager/interceptor_settings.h"
#include "process_manager/meta_info.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_cache.h"
#include "process_manager/services/feature_techs.h"
#include "qor_common/feature_techs_aggregator.h"
#include "support/fake_services.h"
#include "zym/object.h"

namespace test_support {

class ShieldedTracer : public RecordingTracer {
 public:
  zym::result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override {
    const HostsOwnMemory own;
    return RecordingTracer::GetRecord(level, buffer, size);
  }
  void CommitRecord(void* buffer, std::uint64_t length) override {
    const HostsOwnMemory own;
    RecordingTracer::CommitRecord(buffer, length);
  }
};

class ShieldedLocator : public FakeLocator {
 public:
  zym::result_t GetInterface(zym::iid_t iid, std::uint32_t serviceKey, void** out) override {
    const HostsOwnMemory own;
    return FakeLocator::GetInterface(iid, serviceKey, out);
  }
};

class ShieldedScanStatistics : public FakeScanStatisticsCollector {
 public:
  zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&& path) override {
    const HostsOwnMemory own;
    return FakeScanStatisticsCollector::RegisterScannedProcessFilePath(std::move(path));
  }
};

class ShieldedMetricsRegistry : public FakeMetricsRegistry {
 public:
  zym::result_t RegisterCollector(zym::telemetry::ICollector* collector, std::uint64_t* token) override {
    const HostsOwnMemory own;
    return FakeMetricsRegistry::RegisterCollector(collector, token);
  }
};

class ShieldedAggregator : public zym::object::Ifaces<qor::IFeatureTechsAggregator> {
 public:
  explicit ShieldedAggregator(zym::IServiceLocator* locator)
      : m_inner(zym::CreateObject<qor::FeatureTechsAggregator>(locator)) {}

  zym::result_t RegisterTech(std::uint32_t feature, std::uint32_t tech) override {
    const HostsOwnMemory own;
    return m_inner->RegisterTech(feature, tech);
  }
  zym::result_t UnregisterTech(std::uint32_t feature, std::uint32_t tech) override {
    const HostsOwnMemory own;
    return m_inner->UnregisterTech(feature, tech);
  }
  zym::result_t RegisterFeature(std::uint32_t feature) override { return m_inner->RegisterFeature(feature); }
  zym::result_t UnregisterFeature(std::uint32_t feature) override {
    return m_inner->UnregisterFeature(feature);
  }
  zym::result_t Report(qor::FeatureTechsReport& report) override { return m_inner->Report(report); }

 private:
  zym::intrusive_ptr<qor::IFeatureTechsAggregator> m_inner;
};

// The children of this process, by what the module has heard of them. The proc connector tells of every
// process of the machine: those of others are dropped before they cost the module anything, so that the
// allocations of a test are those of its own children. Takes no memory, for it stands in the module's way.
class ChildrenWatch {
 public:
  // A child of this process whose fork was told. One that is new is taken up.
  bool Admit(pid_t pid);
  [[nodiscard]] bool Has(pid_t pid) const { return Find(pid) != nullptr; }
  // What the cache was told of it.
  void NoteFork(pid_t pid) { Note(pid, &Row::forked); }
  void NoteExec(pid_t pid) { Note(pid, &Row::executed); }
  [[nodiscard]] bool HasForked(pid_t pid) const { return Was(pid, &Row::forked); }
  [[nodiscard]] bool HasExecuted(pid_t pid) const { return Was(pid, &Row::executed); }

 private:
  struct Row {
    std::atomic<pid_t> pid{0};
    std::atomic<bool> forked{false};
    std::atomic<bool> executed{false};
  };
  using Flag = std::atomic<bool> Row::*;
  const Row* Find(pid_t pid) const;
  void Note(pid_t pid, Flag flag);
  [[nodiscard]] bool Was(pid_t pid, Flag flag) const;

  std::array<Row, 4096> m_rows;  // by their order
  std::atomic<std::size_t> m_count{0};
};

// Everything in place for an interceptor, as in ModuleHost, over shielded services, with the children of this
// process alone.
class FaultHost {
 public:
  FaultHost();
  ~FaultHost();

  zym::IServiceLocator* Locator() const { return host.locator.get(); }

  zym::result_t CreateInterceptor(
      zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2>& interceptor) const {
    return module.Create(qor::class_ids::kInterceptor, Locator(), interceptor);
  }
  // Any class of zymCreateObject by its primary interface.
  zym::result_t CreateObject(std::uint32_t classId, zym::intrusive_ptr<zym::IObject>& object) const;

  LoadedModule module;  // goes last
  FakeHost host;
  zym::intrusive_ptr<qor::procfs::IParser> parser;
  zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> cache;
  zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsSubscription> settings;
  const std::shared_ptr<ChildrenWatch> children = std::make_shared<ChildrenWatch>();
};

// Runs `body` again and again and expects that the process doesn't hold more allocations with each run. Not
// exactly as many: what a thread kept for its end goes when the next one takes its place.
template <class Body>
void ExpectNothingIsKept(Body body) {
  constexpr int kRuns = 8;
  for (int i = 0; i < kRuns; ++i) body();  // and what libraries keep for good is there
  const std::int64_t before = HeapFaults::Live();
  for (int i = 0; i < kRuns; ++i) body();
  EXPECT_LT(HeapFaults::Live() - before, kRuns) << "allocations that nobody frees";
}

}  // namespace test_support
