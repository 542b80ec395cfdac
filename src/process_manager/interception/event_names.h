// Texts of the event types, for traces.
#pragma once

#include <cstdint>
#include <string>

#include "process_manager/system_event.h"

namespace qor::process_manager {

// The text of a type, or its number in decimal: the journal's type has none.
inline std::string EventTypeText(std::uint32_t type) {
  namespace event_type = system_interceptors::event_type;
  switch (type) {
    case event_type::kCreateProcess:
      return "create_process";
    case event_type::kExitProcess:
      return "exit_process";
    case event_type::kFileCreated:
      return "file_created";
    case event_type::kFileChanged:
      return "file_changed";
    case event_type::kConsoleInput:
      return "console_input";
    default:
      return std::to_string(type);
  }
}

}  // namespace qor::process_manager
