// The live table of features and technologies, and the mark by which a source registers itself for a while.
#pragma once

#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "process_manager/services/feature_techs.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor {

// Offers IFeatureTechsAggregator. Its host puts it into the locator that it gives the module. Any thread.
class FeatureTechsAggregator : public zym::object::Ifaces<IFeatureTechsAggregator>,
                               public zym::ServiceProvider<zym::IServiceLocator>,
                               public zym::TracerProvider,
                               public zym::NonCopyable {
 public:
  explicit FeatureTechsAggregator(zym::IServiceLocator* locator);

  zym::result_t RegisterTech(std::uint32_t feature, std::uint32_t tech) override;
  zym::result_t UnregisterTech(std::uint32_t feature, std::uint32_t tech) override;
  zym::result_t RegisterFeature(std::uint32_t feature) override;
  zym::result_t UnregisterFeature(std::uint32_t feature) override;
  zym::result_t Report(FeatureTechsReport& report) override;

 protected:
  ~FeatureTechsAggregator() = default;

 private:
  using Table = std::unordered_map<std::uint32_t, std::unordered_set<std::uint32_t>>;

  bool IsExploitPreventionActive();
  bool IsAepEnabled();
  void AddExploitPrevention(Table& table, std::uint32_t feature);

  std::mutex m_mutex;  // guards m_aggregated; never held across a call to another object
  Table m_aggregated;
};

// Registers a technology for as long as it lives. Construction throws zym::CheckResultFailedException when
// the aggregator is missing or refuses.
class ScopedTech : public zym::NonCopyable {
 public:
  ScopedTech(zym::IServiceLocator* locator, zym::ITracer* tracer, std::uint32_t feature, std::uint32_t tech);
  ~ScopedTech();

 private:
  zym::intrusive_ptr<zym::ITracer> m_tracer;
  zym::intrusive_ptr<IFeatureTechsAggregator> m_aggregator;
  std::uint32_t m_feature;
  std::uint32_t m_tech;
};

}  // namespace qor
