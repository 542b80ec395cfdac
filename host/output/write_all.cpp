#include "host/output/write_all.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace pmhost {

int WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    const int error = count < 0 ? errno : 0;
    if (error == EAGAIN) {
      pollfd writable{.fd = fd, .events = POLLOUT, .revents = 0};
      ::poll(&writable, 1, -1);
    } else if (error != 0 && error != EINTR) {
      return error;
    } else if (error == 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    }
  }
  return 0;
}

}  // namespace pmhost
