#include "qor_common/unique_fd.h"

#include <unistd.h>

#include <cerrno>

namespace qor {

void UniqueFd::Reset(int fd) noexcept {
  const int old = std::exchange(m_fd, fd);
  if (old < 0) return;
  const int error = errno;
  // EINTR leaves the descriptor closed on Linux, close(2): there is nothing to repeat.
  ::close(old);
  errno = error;
}

}  // namespace qor
