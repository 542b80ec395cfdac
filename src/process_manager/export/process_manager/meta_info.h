// Descriptors of the module's serialisable structures, for the host's serialisation framework (class id
// class_ids::kTypeDescriptorStaticRegistry).
#pragma once

#include <cstddef>
#include <cstdint>

#include "zym/containers.h"
#include "zym/iobject.h"

namespace zym {

// How the framework reaches a vector member without knowing its type. `vector` and elements are addresses of
// objects of the types that the descriptor describes.
struct ISerVectorHelper {
  virtual std::size_t GetCount(const void* vector) const = 0;
  virtual result_t Resize(void* vector, std::size_t count) const = 0;
  virtual void* GetElement(void* vector, std::size_t index) const = 0;
  virtual void Clear(void* vector) const = 0;

 protected:
  ~ISerVectorHelper() = default;
};

struct SerField {
  const char* name;
  void* (*address)(void* object);  // of the field in an object
  const ISerVectorHelper* vector;  // null for a field that is no vector
};

// One structure. Constant, and alive as long as the module is loaded.
struct ISerObjDescriptor {
  // Builds an object in raw memory, as a copy of `source`, or in its default state if `source` is null.
  virtual result_t Construct(void* memory, const void* source) const = 0;
  // The same in memory from `allocator`; null if the allocator has no memory left.
  virtual void* Create(const void* source, IAllocator* allocator) const = 0;
  virtual void Destroy(void* object) const = 0;
  virtual result_t Assign(const void* source, void* target) const = 0;
  virtual result_t Move(void* source, void* target) const = 0;

  virtual std::uint32_t GetClassId() const = 0;
  virtual const char* GetName() const = 0;
  virtual std::size_t GetSize() const = 0;
  virtual types::range_t<const SerField*> GetFields() const = 0;

 protected:
  ~ISerObjDescriptor() = default;
};

// Operations named Reserved return ZYM_E_NOT_IMPLEMENTED. Any thread.
struct IMetaInfoProvider : IObject {
  static constexpr iid_t kIid = 0xa53230cb;

  // Appends the id of every structure.
  virtual result_t GetClassIds(types::vector_t<std::uint32_t>& ids) = 0;
  // ZYM_E_NOT_FOUND: no structure has this id.
  virtual result_t GetDescriptor(std::uint32_t id, const ISerObjDescriptor** descriptor) = 0;
  virtual result_t Reserved3() = 0;
  virtual result_t Reserved4() = 0;
  virtual result_t GetDescriptorById(std::uint32_t id, const ISerObjDescriptor** descriptor) = 0;
  virtual result_t Reserved6() = 0;
  virtual result_t Reserved7() = 0;

 protected:
  ~IMetaInfoProvider() = default;
};

struct IStructMetaInfoRegistry : IObject {
  static constexpr iid_t kIid = 0xfe7da4e6;

  virtual result_t GetDescriptor(std::uint32_t id, const ISerObjDescriptor** descriptor) = 0;
  virtual result_t Reserved2() = 0;
  virtual result_t Reserved3() = 0;

 protected:
  ~IStructMetaInfoRegistry() = default;
};

}  // namespace zym
