// A process event as it is shown: what the event tells, and what the cache still knows of its image.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "process_manager/process_cache_faces.h"
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
  std::uint32_t pid = 0;
  std::optional<std::uint64_t> uniquePid;
  std::optional<std::uint32_t> parentPid;
  std::optional<std::uint64_t> uniqueParentPid;
  std::optional<std::uint32_t> sessionId;
  std::optional<std::uint32_t> userId;
  std::optional<std::u16string_view> imagePath;
  std::optional<std::u16string_view> workingDirectory;
  std::optional<std::u16string_view> commandLine;
  std::uint32_t state = 0;

  std::optional<std::uint32_t> creatorPid;

  bool inCache = false;  // the flags are known
  std::optional<std::uint64_t> uniqueCreatorPid;
  std::optional<zym::datetime_t> startTime;
  std::optional<zym::datetime_t> exitTime;
  std::uint32_t flags = 0;
};

// Asks the cache for what an event doesn't carry; an image that it has forgotten leaves those facts absent.
// Called by one thread at a time.
class ProcessEventReader {
 public:
  explicit ProcessEventReader(zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> cache)
      : m_cache(std::move(cache)) {}

  ProcessEvent Read(qor::process_manager::ISystemEvent& event);

 private:
  bool FindInCache(const ProcessEvent& event);

  const zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> m_cache;
  // What the cache said last: the next answer takes its memory.
  qor::process_manager::process_cache::ProcessInformation m_found;
};

// "create_process" or "exit_process".
const char* EventName(std::uint32_t type);

}  // namespace pmhost
