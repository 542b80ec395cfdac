// A process event as it is shown: what the event tells, and what the cache still knows of its image.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "host/output/shown_process.h"
#include "process_manager/process_cache.h"
#include "process_manager/system_event.h"
#include "zym/intrusive_ptr.h"

namespace pmhost {

// Views are into the event and live as long as it does. Absent: not known.
struct ProcessEvent {
  std::uint32_t type = 0;
  std::uint64_t sequence = 0;
  std::optional<std::uint64_t> timestamp;  // nanoseconds of CLOCK_MONOTONIC
  bool fromExec = false;
  bool fake = false;
  ShownProcess process;
};

// Asks the cache for what an event doesn't carry; an image that it has forgotten leaves those facts absent.
// Called by one thread at a time.
class ProcessEventReader {
 public:
  explicit ProcessEventReader(zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> cache)
      : m_cache(std::move(cache)) {}

  ProcessEvent Read(qor::process_manager::ISystemEvent& event);

 private:
  bool FindInCache(std::uint32_t type, const ShownProcess& process);

  const zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> m_cache;
  // What the cache said last: the next answer takes its memory.
  qor::process_manager::process_cache::ProcessInformation m_found;
};

// "create_process" or "exit_process".
const char* EventName(std::uint32_t type);

}  // namespace pmhost
