// A process event as it is shown.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "host/process_record.h"
#include "process_manager/process_cache.h"
#include "process_manager/system_event.h"
#include "zym/intrusive_ptr.h"

namespace pmhost {

// The event's own facts, and those that the cache still has of its image. Absent: not known.
struct ProcessEvent {
  std::uint32_t type = 0;
  std::uint64_t sequence = 0;
  std::optional<std::uint64_t> timestamp;  // nanoseconds of CLOCK_MONOTONIC
  bool fromExec = false;
  bool fake = false;
  ProcessRecord process;
};

// Asks the cache for what an event doesn't carry; an image that it has forgotten leaves those facts absent.
// Called by one thread at a time.
class ProcessEventReader {
 public:
  explicit ProcessEventReader(zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> cache)
      : m_cache(std::move(cache)) {}

  // Valid until the next call, which takes its memory.
  const ProcessEvent& Read(qor::process_manager::ISystemEvent& event);

 private:
  bool FindInCache();

  const zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> m_cache;
  ProcessEvent m_event;
  qor::process_manager::process_cache::ProcessInformation m_found;
};

}  // namespace pmhost
