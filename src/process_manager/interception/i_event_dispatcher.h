// Interface of the queue between the sources and the handlers.
#pragma once

#include <functional>

#include "process_manager/system_event.h"
#include "zym/containers.h"
#include "zym/intrusive_ptr.h"

namespace qor::process_manager::non_blocking {

using EventHandler = std::function<void(const zym::intrusive_ptr<ISystemEvent>&)>;

// Any thread. Events of one pid are handled in the order of their Dispatch calls.
struct IEventDispatcher : zym::IObject {
  static constexpr zym::iid_t kIid = 0x4c2ef210;

  // Takes the events out of the vector, in their order. Beyond the pending limit all but exit_process are
  // dropped.
  virtual void Dispatch(zym::types::vector_t<zym::intrusive_ptr<ISystemEvent>>& events) = 0;

  // Each waits for the running handler of its type to end. An empty function: such events are completed and
  // forgotten. A handler must not set handlers.
  virtual void SetCreateProcessHandler(EventHandler handler) = 0;
  virtual void SetExitProcessHandler(EventHandler handler) = 0;
  virtual void SetFileCreatedHandler(EventHandler handler) = 0;
  virtual void SetFileChangedHandler(EventHandler handler) = 0;
  virtual void SetConsoleInputHandler(EventHandler handler) = 0;

 protected:
  ~IEventDispatcher() = default;
};

}  // namespace qor::process_manager::non_blocking
