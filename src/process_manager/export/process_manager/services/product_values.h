// State of the product, by number.
//
// Required by FeatureTechsAggregator::Report (qor_common/feature_techs_aggregator.h), which fails with its
// code, on the thread that asks for the report. The module itself doesn't ask for it.
#pragma once

#include <cstdint>

#include "zym/iobject.h"

namespace qor {

// Any thread.
struct IProductValues : zym::IObject {
  static constexpr zym::iid_t kIid = 0xb70e30bb;
  static constexpr std::uint32_t kExploitPreventionActive = 5;

  // ZYM_OK: `value` is set; of kExploitPreventionActive, any value but 0 means yes.
  virtual zym::result_t GetValue(std::uint32_t key, std::uint32_t* value) = 0;

 protected:
  ~IProductValues() = default;
};

}  // namespace qor
