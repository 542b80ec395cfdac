// A descriptor that one thread sleeps on in poll(2) and any other can make readable.
#pragma once

#include <variant>

#include "qor_common/unique_fd.h"
#include "zym/result.h"

namespace qor {
namespace detail {

// Both throw std::system_error when they can't be made, with the place of the throw for those who ask
// (Boost's diagnostic information). Not inheritable: closed in a child after exec, and the end that is polled
// never blocks.
class EventFdDescriptorNotifier {
 public:
  explicit EventFdDescriptorNotifier(bool inheritable);
  [[nodiscard]] int GetDescriptor() const { return m_event.Get(); }
  zym::result_t Notify();
  zym::result_t Reset();

 private:
  UniqueFd m_event;
};

class PipeDescriptorNotifier {
 public:
  explicit PipeDescriptorNotifier(bool inheritable);
  [[nodiscard]] int GetDescriptor() const { return m_read.Get(); }
  zym::result_t Notify();
  zym::result_t Reset();

 private:
  enum Pipe { kRead, kWrite };
  void SetFlags(Pipe end, int flags);

  UniqueFd m_read;
  UniqueFd m_write;
};

}  // namespace detail

// Notify may come from any thread at any time; one thread waits on the descriptor.
class DescriptorNotifier {
 public:
  // An eventfd where the C library has one, else a pipe. There is no falling back at run time.
  explicit DescriptorNotifier(bool inheritable = false);

  // The descriptor to poll for POLLIN. Owned by this object.
  [[nodiscard]] int GetDescriptor() const {
    return std::visit([](const auto& notifier) { return notifier.GetDescriptor(); }, m_notifier);
  }

  // Makes it readable. A failure is the errno by ErrnoToResult; EAGAIN and EINTR are repeated.
  zym::result_t Notify() {
    return std::visit([](auto& notifier) { return notifier.Notify(); }, m_notifier);
  }

  // Takes back every notification of an eventfd, but only one of a pipe. With none to take back it waits for
  // one.
  zym::result_t Reset() {
    return std::visit([](auto& notifier) { return notifier.Reset(); }, m_notifier);
  }

 private:
  using Notifier = std::variant<detail::EventFdDescriptorNotifier, detail::PipeDescriptorNotifier>;
  static Notifier Make(bool inheritable);

  Notifier m_notifier;
};

}  // namespace qor
