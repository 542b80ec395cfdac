#include "qor_common/descriptor_notifier.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

// A C library without eventfd leaves the reference null.
#pragma weak eventfd

namespace qor {
namespace {

const bool g_haveEventFd = &eventfd != nullptr;

[[noreturn]] void ThrowErrno(const char* what) {
  const int error = errno;
  throw std::system_error(error, std::generic_category(), what);
}

// Repeats a read or a write of `size` bytes until it is done or fails for good.
template <class Call>
zym::result_t Repeat(Call call) {
  for (;;) {
    if (call() >= 0) return zym::ZYM_OK;
    const int error = errno;
    if (error != EAGAIN && error != EINTR) return zym::ErrnoToResult(error);
  }
}

}  // namespace

namespace detail {

EventFdDescriptorNotifier::EventFdDescriptorNotifier(bool inheritable)
    : m_event(::eventfd(0, inheritable ? 0 : EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!m_event) ThrowErrno("Creation of eventfd failed");
}

zym::result_t EventFdDescriptorNotifier::Notify() {
  const std::uint64_t one = 1;
  return Repeat([&] { return ::write(m_event.Get(), &one, sizeof(one)); });
}

zym::result_t EventFdDescriptorNotifier::Reset() {
  std::uint64_t count = 0;
  return Repeat([&] { return ::read(m_event.Get(), &count, sizeof(count)); });
}

PipeDescriptorNotifier::PipeDescriptorNotifier(bool inheritable) {
  int ends[2];
  if (::pipe(ends) != 0) ThrowErrno("Creation of pipe failed");
  m_read.Reset(ends[0]);
  m_write.Reset(ends[1]);
  if (inheritable) return;
  SetFlags(kRead, O_NONBLOCK | O_CLOEXEC);
  SetFlags(kWrite, O_CLOEXEC);
}

// Status flags and the close-on-exec flag live apart in the kernel (F_SETFL ignores O_CLOEXEC, fcntl(2)).
void PipeDescriptorNotifier::SetFlags(Pipe end, int flags) {
  const int fd = end == kRead ? m_read.Get() : m_write.Get();
  const int status = ::fcntl(fd, F_GETFL);
  if (status < 0) ThrowErrno("Failed to fetch flags of pipe descriptor");
  if (::fcntl(fd, F_SETFL, status | flags) != 0 ||
      ((flags & O_CLOEXEC) != 0 && ::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0))
    ThrowErrno("Failed to set pipe descriptor flags");
}

zym::result_t PipeDescriptorNotifier::Notify() {
  return Repeat([&] { return ::write(m_write.Get(), "", 1); });
}

zym::result_t PipeDescriptorNotifier::Reset() {
  char byte = 0;
  return Repeat([&] { return ::read(m_read.Get(), &byte, 1); });
}

}  // namespace detail

DescriptorNotifier::DescriptorNotifier(bool inheritable) {
  if (g_haveEventFd)
    m_notifier = std::make_unique<detail::EventFdDescriptorNotifier>(inheritable);
  else
    m_notifier = std::make_unique<detail::PipeDescriptorNotifier>(inheritable);
}

}  // namespace qor
