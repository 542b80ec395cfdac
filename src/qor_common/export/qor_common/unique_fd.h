// An owned file descriptor.
#pragma once

#include <utility>

namespace qor {

class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : m_fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~UniqueFd() { Reset(); }

  [[nodiscard]] int Get() const noexcept { return m_fd; }
  explicit operator bool() const noexcept { return m_fd >= 0; }

  // Hands the descriptor to the caller.
  [[nodiscard]] int Release() noexcept { return std::exchange(m_fd, -1); }

  // Closes what it held, keeping errno, and takes `fd`.
  void Reset(int fd = -1) noexcept;

 private:
  int m_fd = -1;
};

}  // namespace qor
