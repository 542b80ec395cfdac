#include "host_kit/running_threads.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "qor_common/unique_fd.h"

namespace host_kit {

bool HasRunningThread(qor::PidType pid) {
  const qor::UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!process) return errno == EMFILE || errno == ENFILE || errno == ENOMEM;
  pollfd ended{.fd = process.Get(), .events = POLLIN, .revents = 0};
  return ::poll(&ended, 1, 0) == 0;
}

}  // namespace host_kit
