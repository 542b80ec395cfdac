// A descriptor that one thread sleeps on in poll(2) and any other can make readable.
#pragma once

#include <memory>

#include "qor_common/unique_fd.h"
#include "zym/result.h"

namespace qor {
namespace detail {

struct IDescriptorNotifier {
  virtual ~IDescriptorNotifier() = default;
  virtual int GetDescriptor() const = 0;
  virtual zym::result_t Notify() = 0;
  virtual zym::result_t Reset() = 0;
};

// Both throw std::system_error when they can't be made. Not inheritable: closed in a child after exec, and
// the end that is polled never blocks.
class EventFdDescriptorNotifier final : public IDescriptorNotifier {
 public:
  explicit EventFdDescriptorNotifier(bool inheritable);
  int GetDescriptor() const override { return m_event.Get(); }
  zym::result_t Notify() override;
  zym::result_t Reset() override;

 private:
  UniqueFd m_event;
};

class PipeDescriptorNotifier final : public IDescriptorNotifier {
 public:
  explicit PipeDescriptorNotifier(bool inheritable);
  int GetDescriptor() const override { return m_read.Get(); }
  zym::result_t Notify() override;
  zym::result_t Reset() override;

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
  [[nodiscard]] int GetDescriptor() const { return m_notifier->GetDescriptor(); }

  // Makes it readable. A failure is the errno by ErrnoToResult; EAGAIN and EINTR are repeated.
  zym::result_t Notify() { return m_notifier->Notify(); }

  // Takes back every notification of an eventfd, but only one of a pipe.
  zym::result_t Reset() { return m_notifier->Reset(); }

 private:
  std::unique_ptr<detail::IDescriptorNotifier> m_notifier;
};

}  // namespace qor
