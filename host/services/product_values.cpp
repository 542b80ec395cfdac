#include "host/services/product_values.h"

namespace pmhost {

zym::result_t ProductValues::GetValue(std::uint32_t key, std::uint32_t* value) {
  if (key != kExploitPreventionActive) return zym::ZYM_E_NOT_FOUND;
  *value = 0;
  return zym::ZYM_OK;
}

}  // namespace pmhost
