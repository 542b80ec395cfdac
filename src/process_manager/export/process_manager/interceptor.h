// Interceptor: the one object through which a host reaches all event sources (class id
// class_ids::kInterceptor).
#pragma once

#include <array>
#include <cstdint>

#include "process_manager/event_processing.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace system_interceptors::interceptor_facade {

// What a filter selects. Only the type is read by the module; the rest is kept for the host.
struct FilterDescriptor {
  std::uint32_t type = 0;  // event_type
  std::array<std::uint8_t, 92> reserved{};
};
static_assert(sizeof(FilterDescriptor) == 96);

using FilterIds = zym::types::range_t<unsigned int*>;

// Any thread but that of a handler; one operation runs at a time. Unknown ids in a list of ids are no error.
//
// A filter is active while it is enabled and has a handler. A source that the host enables starts at once. It
// stops when its table has no active filter left, and starts again with the next one.
//
// Inside a handler, call no operation of the interceptor, of whichever interface: another thread may be in
// one that waits for the handler to return, and both would wait for each other. Don't release the last
// reference to the interceptor there either: it joins the thread that calls handlers, which can't wait for
// itself, and ends the process.
struct IInterceptor : zym::IObject {
  static constexpr zym::iid_t kIid = 0xde7726f2;

  // Not implemented yet: ZYM_E_NOT_IMPLEMENTED.
  virtual zym::result_t GetOfflineLog() = 0;

  // `id` is written before anything else, and is not used again even if the registration fails. With a null
  // handler the filter is inert. `timeout` and `flags` are stored and not read by the module.
  // ZYM_E_INVALID_ARGUMENT: `id` is null. ZYM_E_NOT_SUPPORTED: there are no such filters for this type of
  // event. When the source can't be started, its code is the result, and the filter is registered.
  virtual zym::result_t RegisterBlockingFilterAttachHandler(const FilterDescriptor& descriptor, bool enabled,
                                                            std::uint32_t flags, std::uint32_t timeout,
                                                            event_processing::IBlockingEventHandler* handler,
                                                            std::uint32_t* id) = 0;
  virtual zym::result_t RegisterNonBlockingFilterAttachHandler(
      const FilterDescriptor& descriptor, bool enabled, std::uint32_t flags,
      event_processing::INonBlockingEventHandler* handler, std::uint32_t* id) = 0;
  // A non-blocking filter without a handler.
  virtual zym::result_t RegisterFilter(const FilterDescriptor& descriptor, bool enabled, std::uint32_t flags,
                                       std::uint32_t* id) = 0;

  // These go through the sources' tables in a fixed order, up to the first failure to start or stop a source;
  // the tables up to there stay changed. Deleting, disabling and detaching wait until no handler of the
  // filters runs.
  virtual zym::result_t DeleteFilters(FilterIds ids) = 0;
  virtual zym::result_t EnableFilters(FilterIds ids) = 0;
  virtual zym::result_t DisableFilters(FilterIds ids) = 0;

  // Does nothing and returns ZYM_OK.
  virtual zym::result_t ReservedOperation() = 0;

 protected:
  ~IInterceptor() = default;
};

// Continuation of IInterceptor, on the same pointer.
struct IInterceptor2 : IInterceptor {
  static constexpr zym::iid_t kIid = 0x49b85a1b;

  // Non-blocking filters only: the handler of a blocking filter is given at its registration and stays. For
  // the id of one, nothing changes and the result is ZYM_OK.
  virtual zym::result_t AttachHandler(std::uint32_t id,
                                      event_processing::INonBlockingEventHandler* handler) = 0;
  virtual zym::result_t DetachHandler(std::uint32_t id) = 0;

  virtual zym::result_t EnableDisableFilters(FilterIds toEnable, FilterIds toDisable) = 0;

  // ZYM_E_NOT_FOUND: no table holds the id.
  virtual zym::result_t GetFilterStatus(std::uint32_t id, bool* enabled) = 0;

 protected:
  ~IInterceptor2() = default;
};

}  // namespace system_interceptors::interceptor_facade

namespace qor::process_manager {

// Bits of the non-blocking interceptor's type.
namespace non_blocking_type {
// The kernel's proc connector. Older kernels ask for CAP_NET_ADMIN; newer ones (6.18) let every user listen.
// Without that right the socket's buffer can't be larger than the system's limit (net.core.rmem_max), and
// without further rights much of /proc stays unknown for other users' processes.
inline constexpr std::uint32_t kNetlink = 1;
inline constexpr std::uint32_t kKprobes = 2;          // the host's exec listener
inline constexpr std::uint32_t kFullProcessInfo = 4;  // credentials and environments with each exec
inline constexpr std::uint32_t kConsoleInput = 8;     // named in the trace; it starts nothing here
}  // namespace non_blocking_type

// Switch of the sources, apart from their filters. Threads as for IInterceptor. ZYM_OK: done, or there was
// nothing to do. ZYM_E_NOT_SUPPORTED: this build has no such source. Any other failure is the source's.
struct IQorInterceptor : zym::IObject {
  static constexpr zym::iid_t kIid = 0xdae40c14;

  // ZYM_FALSE: the machine has no fanotify, so nothing was enabled.
  virtual zym::result_t EnableBlockingInterceptor() = 0;
  virtual zym::result_t DisableBlockingInterceptor() = 0;
  // `type`: bits of non_blocking_type. A failure to stop a source is traced; the result is ZYM_OK.
  virtual zym::result_t EnableNonBlockingInterceptor(std::uint32_t type) = 0;
  virtual zym::result_t DisableNonBlockingInterceptor(std::uint32_t type) = 0;
  virtual zym::result_t EnableJournalInterceptor() = 0;
  virtual zym::result_t DisableJournalInterceptor() = 0;
  virtual zym::result_t EnableConsoleInputInterceptor() = 0;
  virtual zym::result_t DisableConsoleInputInterceptor() = 0;

 protected:
  ~IQorInterceptor() = default;
};

}  // namespace qor::process_manager
