// Handlers of events, which the host attaches to filters.
#pragma once

#include <cstdint>

#include "process_manager/system_event.h"
#include "zym/iobject.h"

namespace system_interceptors::event_processing {

// Called on the module's worker thread "vornPrcMonProc", one event after the other. Inside the call no
// operation of the interceptor may be called, nor its last reference released (interceptor.h says why).
struct INonBlockingEventHandler : zym::IObject {
  virtual void OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t filterId) = 0;

 protected:
  ~INonBlockingEventHandler() = default;
};

// Reply of a blocking handler. It only rises: a lower one after a higher one is ignored.
enum class Action : std::uint32_t { kDefault = 0, kAllow = 1, kDeny = 2, kBypass = 3 };

// Reply channel of a blocking handler. Any thread.
struct IEventControl : zym::IObject {
  virtual zym::result_t Pend(std::uint32_t timeout) = 0;
  virtual zym::result_t PreReply(const Action& action, std::uint32_t timeout) = 0;
  virtual zym::result_t Reply(const Action& action) = 0;

 protected:
  ~IEventControl() = default;
};

// Called while the process that executes is held by the kernel.
struct IBlockingEventHandler : zym::IObject {
  virtual void OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t filterId,
                       IEventControl* control) = 0;

 protected:
  ~IBlockingEventHandler() = default;
};

}  // namespace system_interceptors::event_processing
