// The state of a product that prevents no exploits.
#pragma once

#include <cstdint>

#include "process_manager/services/product_values.h"
#include "zym/object.h"

namespace pmhost {

// Any thread.
class ProductValues : public zym::object::Ifaces<qor::IProductValues> {
 public:
  // ZYM_E_NOT_FOUND: this host has no such value.
  zym::result_t GetValue(std::uint32_t key, std::uint32_t* value) override;
};

}  // namespace pmhost
