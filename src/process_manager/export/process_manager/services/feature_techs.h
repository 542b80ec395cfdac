// Register of the features of the product that are in use, and of the technologies that deliver them.
//
// Required by the netlink source, which registers itself when it starts and unregisters when it stops, on the
// thread that starts or stops it. When registering fails, so does the start. qor::FeatureTechsAggregator
// (qor_common/feature_techs_aggregator.h) is an implementation.
#pragma once

#include <cstdint>

#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

struct FeatureTechsReport {
  struct Entry {
    std::uint32_t feature;
    zym::types::vector_t<std::uint32_t> techs;  // empty: in use, with no technology
  };
  zym::types::vector_t<Entry> entries;  // one for each feature
};

// Any thread.
struct IFeatureTechsAggregator : zym::IObject {
  static constexpr zym::iid_t kIid = 0x05f76414;

  // ZYM_OK also when it is registered already.
  virtual zym::result_t RegisterTech(std::uint32_t feature, std::uint32_t tech) = 0;
  // ZYM_E_NOT_FOUND: the feature, or the technology of it, isn't registered. The feature stays.
  virtual zym::result_t UnregisterTech(std::uint32_t feature, std::uint32_t tech) = 0;
  virtual zym::result_t RegisterFeature(std::uint32_t feature) = 0;
  // ZYM_E_NOT_FOUND: it isn't registered.
  virtual zym::result_t UnregisterFeature(std::uint32_t feature) = 0;
  // Replaces the contents of the record. Not called by the module.
  virtual zym::result_t Report(FeatureTechsReport& report) = 0;

 protected:
  ~IFeatureTechsAggregator() = default;
};

}  // namespace qor
