// Strings and vectors that cross the wall between host and module: the standard ones over an allocator that
// may carry the host's, and falls back to malloc and free. A copy of a container starts without the host's
// allocator; a move takes it along.
#pragma once

#include <cstdlib>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "zym/intrusive_ptr.h"
#include "zym/iobject.h"

namespace zym {

// Memory from the host's allocator if there is one, else from malloc.
class abi_v1_allocator {
 public:
  abi_v1_allocator() noexcept = default;
  explicit abi_v1_allocator(IAllocator* allocator) noexcept : m_allocator(allocator) {}

  [[nodiscard]] void* Allocate(std::size_t size) {
    void* const memory = m_allocator ? m_allocator->Alloc(size) : std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
  }
  void Free(void* memory) noexcept { m_allocator ? m_allocator->Free(memory) : std::free(memory); }

  [[nodiscard]] IAllocator* get() const noexcept { return m_allocator.get(); }
  friend bool operator==(const abi_v1_allocator&, const abi_v1_allocator&) noexcept = default;

 private:
  intrusive_ptr<IAllocator> m_allocator;
};

namespace types {

template <class T, class Source>
class std_allocator {
 public:
  using value_type = T;
  using propagate_on_container_move_assignment = std::true_type;
  using propagate_on_container_swap = std::true_type;

  std_allocator() noexcept = default;
  explicit std_allocator(IAllocator* allocator) noexcept : m_source(allocator) {}
  template <class U>
  std_allocator(const std_allocator<U, Source>& other) noexcept : m_source(other.source()) {}

  [[nodiscard]] T* allocate(std::size_t count) {
    if (count > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw std::bad_array_new_length();
    return static_cast<T*>(m_source.Allocate(count * sizeof(T)));
  }
  void deallocate(T* memory, std::size_t) noexcept { m_source.Free(memory); }

  std_allocator select_on_container_copy_construction() const noexcept { return {}; }
  [[nodiscard]] const Source& source() const noexcept { return m_source; }
  friend bool operator==(const std_allocator&, const std_allocator&) noexcept = default;

 private:
  Source m_source;
};

template <class T, class Source = abi_v1_allocator>
using vector_t = std::vector<T, std_allocator<T, Source>>;

template <class C, class Source = abi_v1_allocator>
using basic_string_t = std::basic_string<C, std::char_traits<C>, std_allocator<C, Source>>;

using string_t = basic_string_t<char>;
using string16_t = basic_string_t<char16_t>;

// A view of elements that the caller owns: [begin, end).
template <class It>
struct range_t {
  It first{};
  It last{};

  [[nodiscard]] It begin() const noexcept { return first; }
  [[nodiscard]] It end() const noexcept { return last; }
  [[nodiscard]] std::size_t size() const noexcept { return static_cast<std::size_t>(last - first); }
  [[nodiscard]] bool empty() const noexcept { return first == last; }
};

// Bytes that the caller owns.
using blob_range_t = range_t<std::uint8_t*>;
using const_blob_range_t = range_t<const std::uint8_t*>;

}  // namespace types
}  // namespace zym
