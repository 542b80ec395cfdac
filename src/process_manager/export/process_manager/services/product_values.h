// The product's state by number. Any thread.
#pragma once

#include <cstdint>

#include "zym/iobject.h"

namespace qor {

// The product's state by number.
struct IProductValues : zym::IObject {
  static constexpr zym::iid_t kIid = 0xb70e30bb;
  static constexpr std::uint32_t kExploitPreventionActive = 5;

  virtual zym::result_t GetValue(std::uint32_t key, std::uint32_t* value) = 0;

 protected:
  ~IProductValues() = default;
};

}  // namespace qor
