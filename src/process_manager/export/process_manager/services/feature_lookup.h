// Named switches of the product.
//
// Optional. Asked for at each new image, on the thread of the event source. A switch that can't be read is
// off.
#pragma once

#include "zym/iobject.h"

namespace qor {

// Any thread.
struct IFeatureLookup : zym::IObject {
  static constexpr zym::iid_t kIid = 0x9caa2097;

  // ZYM_E_NOT_FOUND: there is no such switch; `value` is left alone.
  virtual zym::result_t GetBoolean(const char* name, bool* value) = 0;

 protected:
  ~IFeatureLookup() = default;
};

// The switch that lets images be opened through the root of a process in another mount namespace.
inline constexpr const char* kOpenIOFromForeignMountNamespace =
    "qor.process_manager.OpenIOFromForeignMountNamespace";

}  // namespace qor
