// Values by number, on an object that may be told more than its interface has operations for.
#pragma once

#include <cstdint>
#include <map>
#include <new>

#include "zym/iobject.h"
#include "zym/variant.h"

namespace zym {

using propid_t = std::uint32_t;

struct IPropertyBag : IObject {
  static constexpr iid_t kIid = 0x3a4e9ae4;

  // ZYM_E_PROPERTY_NOT_FOUND: there is no value under `id`; `value` is left alone.
  virtual result_t Get(propid_t id, types::variant_t* value) const = 0;
  // Replaces the value under `id` by a copy.
  virtual result_t Put(propid_t id, const types::variant_t* value) = 0;

 protected:
  ~IPropertyBag() = default;
};

// Walks the ids of a bag, ascending.
struct IEnumProperties : IObject {
  static constexpr iid_t kIid = 0xd7d72096;

  // ZYM_FALSE: the walk is over; `id` is left alone.
  virtual result_t Next(propid_t* id) = 0;
  virtual result_t Reset() = 0;

 protected:
  ~IEnumProperties() = default;
};

// A bag as a base class. It has no lock: its owner says who may call it when.
template <class Interface>
class PropertyBagImpl : public Interface {
 public:
  result_t Get(propid_t id, types::variant_t* value) const override try {
    const auto found = m_properties.find(id);
    if (found == m_properties.end()) return ZYM_E_PROPERTY_NOT_FOUND;
    *value = found->second;
    return ZYM_OK;
  } catch (const std::bad_alloc&) {
    return ZYM_E_OUT_OF_MEMORY;
  }

  result_t Put(propid_t id, const types::variant_t* value) override try {
    types::variant_t copy = *value;
    m_properties[id] = std::move(copy);
    return ZYM_OK;
  } catch (const std::bad_alloc&) {
    return ZYM_E_OUT_OF_MEMORY;
  }

 protected:
  ~PropertyBagImpl() = default;

 private:
  std::map<propid_t, types::variant_t> m_properties;
};

}  // namespace zym
