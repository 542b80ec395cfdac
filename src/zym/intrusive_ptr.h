// A counted pointer to an object that counts its own references.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

namespace zym {

template <class I>
class intrusive_ptr {
 public:
  constexpr intrusive_ptr() noexcept = default;
  constexpr intrusive_ptr(std::nullptr_t) noexcept {}

  // Shares `object`: adds a reference.
  explicit intrusive_ptr(I* object) noexcept : m_object(object) {
    if (m_object != nullptr) m_object->AddRef();
  }
  intrusive_ptr(const intrusive_ptr& other) noexcept : intrusive_ptr(other.m_object) {}
  intrusive_ptr(intrusive_ptr&& other) noexcept : m_object(other.Detach()) {}

  template <class J>
  requires std::is_convertible_v<J*, I*> intrusive_ptr(const intrusive_ptr<J>& other)
  noexcept : intrusive_ptr(static_cast<I*>(other.get())) {}
  template <class J>
  requires std::is_convertible_v<J*, I*> intrusive_ptr(intrusive_ptr<J>&& other)
  noexcept : m_object(other.Detach()) {}

  ~intrusive_ptr() { Reset(); }

  intrusive_ptr& operator=(intrusive_ptr other) noexcept {
    std::swap(m_object, other.m_object);
    return *this;
  }

  // Takes over a reference that the caller already owns.
  [[nodiscard]] static intrusive_ptr Attach(I* object) noexcept {
    intrusive_ptr result;
    result.m_object = object;
    return result;
  }

  // Hands the reference to the caller and becomes empty.
  [[nodiscard]] I* Detach() noexcept { return std::exchange(m_object, nullptr); }

  void Reset() noexcept {
    if (I* const object = Detach(); object != nullptr) object->Release();
  }

  // The address of the raw pointer, for an out-parameter that hands over a reference. Empties this first.
  [[nodiscard]] I** Ref() noexcept {
    Reset();
    return &m_object;
  }

  [[nodiscard]] I* get() const noexcept { return m_object; }
  I* operator->() const noexcept { return m_object; }
  I& operator*() const noexcept { return *m_object; }
  explicit operator bool() const noexcept { return m_object != nullptr; }

  friend bool operator==(const intrusive_ptr& a, const intrusive_ptr& b) noexcept = default;
  friend bool operator==(const intrusive_ptr& a, const I* b) noexcept { return a.m_object == b; }

 private:
  I* m_object = nullptr;
};

template <class I>
using objptr_t = intrusive_ptr<I>;

}  // namespace zym
