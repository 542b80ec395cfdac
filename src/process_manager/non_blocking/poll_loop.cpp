#include "process_manager/non_blocking/poll_loop.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "zym/trace.h"

namespace qor::process_manager::non_blocking {
namespace {

constexpr short kBroken = POLLERR | POLLHUP | POLLNVAL;

// Takes the error that waits on a socket, as the next recv(2) would; 0 if there is none, or no socket.
int TakePendingError(int fd) {
  int error = 0;
  socklen_t length = sizeof(error);
  return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : 0;
}

}  // namespace

PollLoop::PollLoop(zym::ITracer* tracer, int stopDescriptor, IDatagramSource& source, Process process)
    : m_tracer(tracer), m_stopDescriptor(stopDescriptor), m_source(source), m_process(std::move(process)) {}

zym::result_t PollLoop::Run() {
  for (;;) {
    pollfd descriptors[] = {
        {.fd = m_stopDescriptor, .events = POLLIN, .revents = 0},
        {.fd = m_source.GetDescriptor(), .events = POLLIN, .revents = 0},
    };
    auto& [stop, netlink] = descriptors;
    const int nfds = ::poll(descriptors, std::size(descriptors), -1);
    const int error = errno;
    if (nfds == -1 && error == EINTR) continue;
    ZYM_CHECK(m_tracer, nfds > 0, zym::ZYM_E_UNSPECIFIED, ": poll error: " << std::strerror(error));
    ZYM_CHECK(m_tracer, !(stop.revents & kBroken), zym::ZYM_E_UNSPECIFIED, ": stop fd is corrupted");
    if ((stop.revents & POLLIN) != 0) {
      // Under the name of the thread's function: meant.
      ZYM_TRACE(m_tracer, zym::trace::kCall, "PollTask: Received stop event, stopping polling");
      return zym::ZYM_OK;
    }
    if ((netlink.revents & POLLERR) != 0 && IsOverflow(netlink.fd)) netlink.revents &= ~POLLERR;
    ZYM_CHECK(m_tracer, !(netlink.revents & kBroken), zym::ZYM_E_UNSPECIFIED, ": netlink fd is corrupted");
    // A failed read is traced there and survived: what the kernel dropped is lost, the rest still comes.
    if ((netlink.revents & POLLIN) != 0) static_cast<void>(ReadNetlink());
  }
}

zym::result_t PollLoop::ReadNetlink() {
  alignas(std::uint64_t) char buffer[kMaxMessageSize];
  for (;;) {
    const std::int64_t size = m_source.Receive(buffer, sizeof(buffer));
    const int error = errno;
    if (size > 0) {
      m_process(buffer, static_cast<std::uint64_t>(size));
      continue;
    }
    if (size == 0) return zym::ZYM_OK;
    if (error == EINTR) continue;
    if (error == EAGAIN) return zym::ZYM_OK;
    TraceReadError(error);
    return zym::ZYM_E_UNSPECIFIED;
  }
}

// The kernel marks the socket with ENOBUFS when it drops a datagram (netlink(7)). Mostly the next recv(2)
// takes the mark; when the drop falls into the moment between the last recv(2) and poll(2), the latter shows
// it. Either way it is a failed read and no broken socket, and is traced as one, by the name of ReadNetlink.
bool PollLoop::IsOverflow(int fd) {
  const int error = TakePendingError(fd);
  if (error != 0) TraceReadError(error);
  return error == ENOBUFS;
}

void PollLoop::TraceReadError(int error) {
  ZYM_TRACE(
      m_tracer, zym::trace::kFailure,
      "ReadNetlink: Error on recv() from netlink socket: " << std::strerror(error) << " (" << error << ")");
}

}  // namespace qor::process_manager::non_blocking
