// Descriptors of serialisable structures, written once as templates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include "process_manager/meta_info.h"
#include "zym/containers.h"
#include "zym/variant.h"

namespace zym {

// What doesn't depend on the structure: its id, name and fields.
class SerObjDescriptorHelper : public ISerObjDescriptor {
 public:
  std::uint32_t GetClassId() const override { return m_classId; }
  const char* GetName() const override { return m_name; }
  types::range_t<const SerField*> GetFields() const override { return m_fields; }

 protected:
  constexpr SerObjDescriptorHelper(std::uint32_t classId, const char* name,
                                   types::range_t<const SerField*> fields)
      : m_classId(classId), m_name(name), m_fields(fields) {}
  ~SerObjDescriptorHelper() = default;

 private:
  std::uint32_t m_classId;
  const char* m_name;
  types::range_t<const SerField*> m_fields;
};

template <class T>
class SerObjDescriptorImpl final : public SerObjDescriptorHelper {
 public:
  constexpr SerObjDescriptorImpl(std::uint32_t classId, const char* name,
                                 types::range_t<const SerField*> fields)
      : SerObjDescriptorHelper(classId, name, fields) {}

  result_t Construct(void* memory, const void* source) const override try {
    source != nullptr ? new (memory) T(*static_cast<const T*>(source)) : new (memory) T();
    return ZYM_OK;
  } catch (const std::bad_alloc&) {
    return ZYM_E_OUT_OF_MEMORY;
  }

  void* Create(const void* source, IAllocator* allocator) const override {
    void* const memory = allocator->Alloc(sizeof(T));
    if (memory == nullptr || Construct(memory, source) == ZYM_OK) return memory;
    allocator->Free(memory);
    return nullptr;
  }

  void Destroy(void* object) const override { std::destroy_at(static_cast<T*>(object)); }

  result_t Assign(const void* source, void* target) const override try {
    *static_cast<T*>(target) = *static_cast<const T*>(source);
    return ZYM_OK;
  } catch (const std::bad_alloc&) {
    return ZYM_E_OUT_OF_MEMORY;
  }

  // As T itself moves; the target's old content goes. A member vector gives up its memory and its allocator.
  result_t Move(void* source, void* target) const override {
    T moved(std::move(*static_cast<T*>(source)));  // so that an object may be moved to itself
    *static_cast<T*>(target) = std::move(moved);
    return ZYM_OK;
  }

  std::size_t GetSize() const override { return sizeof(T); }
};

template <class V>
class SerVectorHelperImpl final : public ISerVectorHelper {
 public:
  std::size_t GetCount(const void* vector) const override { return static_cast<const V*>(vector)->size(); }
  result_t Resize(void* vector, std::size_t count) const override try {
    static_cast<V*>(vector)->resize(count);
    return ZYM_OK;
  } catch (const std::bad_alloc&) {
    return ZYM_E_OUT_OF_MEMORY;
  } catch (const std::length_error&) {
    return ZYM_E_INVALID_SIZE;
  }
  void* GetElement(void* vector, std::size_t index) const override {
    return index < GetCount(vector) ? &(*static_cast<V*>(vector))[index] : nullptr;
  }
  void Clear(void* vector) const override { static_cast<V*>(vector)->clear(); }
};

}  // namespace zym

namespace qor {

// Two records of one shape: an id and a value. A move copies the id and takes the value; the source keeps its
// id and has an empty value then.
struct RuntimeField {
  std::uint32_t id = 0xffffffff;
  zym::types::variant_t value;
};

struct AdditionalField {
  std::uint32_t id = 0xffffffff;
  zym::types::variant_t value;
};

}  // namespace qor
