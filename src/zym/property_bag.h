// Values by number, on an object that may be told more than its interface has operations for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "zym/object.h"
#include "zym/variant.h"

namespace zym {

using propid_t = std::uint32_t;

struct IEnumProperties;

struct IPropertyBag : IObject {
  static constexpr iid_t kIid = 0x3a4e9ae4;

  // ZYM_E_PROPERTY_NOT_FOUND: there is no value under `id`; `value` is left alone.
  virtual result_t Get(propid_t id, types::variant_t* value) const = 0;
  // Replaces the value under `id` by a copy.
  virtual result_t Put(propid_t id, const types::variant_t* value) = 0;
  // Gives a walk, with one reference, over the ids that have a value now; later changes don't touch it.
  virtual result_t Enumerate(IEnumProperties** properties) const = 0;

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

namespace detail {

class PropertyEnumerator : public object::Ifaces<IEnumProperties> {
 public:
  explicit PropertyEnumerator(std::vector<propid_t> ids) noexcept : m_ids(std::move(ids)) {}

  result_t Next(propid_t* id) override {
    if (m_next == m_ids.size()) return ZYM_FALSE;
    *id = m_ids[m_next++];
    return ZYM_OK;
  }

  result_t Reset() override {
    m_next = 0;
    return ZYM_OK;
  }

 protected:
  ~PropertyEnumerator() = default;

 private:
  const std::vector<propid_t> m_ids;
  std::size_t m_next = 0;
};

}  // namespace detail

// A bag as a base class. It has no lock: its owner says who may call it when.
template <class Interface>
class PropertyBagImpl : public Interface {
 public:
  result_t Get(propid_t id, types::variant_t* value) const override try {
    if (!m_properties) return ZYM_E_PROPERTY_NOT_FOUND;
    const auto found = m_properties->find(id);
    if (found == m_properties->end()) return ZYM_E_PROPERTY_NOT_FOUND;
    *value = found->second;
    return ZYM_OK;
  } catch (const std::bad_alloc&) {
    return ZYM_E_OUT_OF_MEMORY;
  }

  result_t Put(propid_t id, const types::variant_t* value) override try {
    types::variant_t copy = *value;
    if (!m_properties) m_properties = std::make_unique<Properties>();
    (*m_properties)[id] = std::move(copy);
    return ZYM_OK;
  } catch (const std::bad_alloc&) {
    return ZYM_E_OUT_OF_MEMORY;
  }

  result_t Enumerate(IEnumProperties** properties) const override try {
    std::vector<propid_t> ids;
    if (m_properties)
      for (const auto& property : *m_properties) ids.push_back(property.first);
    *properties = CreateObject<detail::PropertyEnumerator>(std::move(ids)).Detach();
    return ZYM_OK;
  } catch (const std::bad_alloc&) {
    return ZYM_E_OUT_OF_MEMORY;
  }

 protected:
  ~PropertyBagImpl() = default;

 private:
  using Properties = std::map<propid_t, types::variant_t>;

  std::unique_ptr<Properties> m_properties;  // null until the first value: most bags stay empty
};

}  // namespace zym
