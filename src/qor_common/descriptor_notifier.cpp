#include "qor_common/descriptor_notifier.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <boost/assert/source_location.hpp>
#include <boost/throw_exception.hpp>
#include <cerrno>
#include <cstdint>
#include <system_error>

// A C library without eventfd leaves the reference null.
#pragma weak eventfd

namespace qor {
namespace {

const bool g_haveEventFd = &eventfd != nullptr;

std::system_error LastError(const char* what) {
  const int error = errno;
  return {error, std::generic_category(), what};
}

// Repeats a read or a write of a whole notification until it is done or fails for good. Between two tries it
// sleeps until the descriptor is ready for `events`.
template <class Call>
zym::result_t Repeat(int fd, short events, Call call) {
  for (;;) {
    if (call() >= 0) return zym::ZYM_OK;
    const int error = errno;
    if (error != EAGAIN && error != EINTR) return zym::ErrnoToResult(error);
    if (error == EAGAIN) {
      pollfd ready{.fd = fd, .events = events, .revents = 0};
      static_cast<void>(::poll(&ready, 1, -1));  // however it ends, the next try says what there is
    }
  }
}

}  // namespace

namespace detail {

EventFdDescriptorNotifier::EventFdDescriptorNotifier(bool inheritable)
    : m_event(::eventfd(0, inheritable ? 0 : EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!m_event) BOOST_THROW_EXCEPTION(LastError("Creation of eventfd failed"));
}

zym::result_t EventFdDescriptorNotifier::Notify() {
  const std::uint64_t one = 1;
  return Repeat(m_event.Get(), POLLOUT, [&] { return ::write(m_event.Get(), &one, sizeof(one)); });
}

zym::result_t EventFdDescriptorNotifier::Reset() {
  std::uint64_t count = 0;
  return Repeat(m_event.Get(), POLLIN, [&] { return ::read(m_event.Get(), &count, sizeof(count)); });
}

PipeDescriptorNotifier::PipeDescriptorNotifier(bool inheritable) {
  // Not pipe2(2), which the C libraries that this kind is for have no more than eventfd(2): glibc got it one
  // version later. Until the flags are set a child that another thread starts inherits the ends.
  int ends[2];
  if (::pipe(ends) != 0) BOOST_THROW_EXCEPTION(LastError("Creation of pipe failed"));
  m_read.Reset(ends[0]);
  m_write.Reset(ends[1]);
  if (inheritable) return;
  SetFlags(kRead, O_NONBLOCK | O_CLOEXEC);
  SetFlags(kWrite, O_CLOEXEC);
}

// Status flags and the close-on-exec flag live apart in the kernel (F_SETFL ignores O_CLOEXEC, fcntl(2)).
void PipeDescriptorNotifier::SetFlags(Pipe end, int flags) {
  // In full: compilers differ in how they print a nested type.
  constexpr boost::source_location kPlace(
      __FILE__, __LINE__,
      "void qor::detail::PipeDescriptorNotifier::SetFlags(qor::detail::PipeDescriptorNotifier::Pipe, int)");
  const int fd = end == kRead ? m_read.Get() : m_write.Get();
  const int status = ::fcntl(fd, F_GETFL);
  if (status < 0) boost::throw_exception(LastError("Failed to fetch flags of pipe descriptor"), kPlace);
  if (::fcntl(fd, F_SETFL, status | flags) != 0 ||
      ((flags & O_CLOEXEC) != 0 && ::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0))
    boost::throw_exception(LastError("Failed to set pipe descriptor flags"), kPlace);
}

zym::result_t PipeDescriptorNotifier::Notify() {
  return Repeat(m_write.Get(), POLLOUT, [&] { return ::write(m_write.Get(), "", 1); });
}

zym::result_t PipeDescriptorNotifier::Reset() {
  char byte = 0;
  return Repeat(m_read.Get(), POLLIN, [&] { return ::read(m_read.Get(), &byte, 1); });
}

}  // namespace detail

DescriptorNotifier::DescriptorNotifier(bool inheritable) : m_notifier(Make(inheritable)) {}

DescriptorNotifier::Notifier DescriptorNotifier::Make(bool inheritable) {
  if (g_haveEventFd) return detail::EventFdDescriptorNotifier(inheritable);
  return detail::PipeDescriptorNotifier(inheritable);
}

}  // namespace qor
