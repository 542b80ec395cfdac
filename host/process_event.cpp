#include "host/process_event.h"

#include <cstring>
#include <string_view>

namespace pmhost {
namespace {

using namespace qor::process_manager;
namespace event_param = system_interceptors::event_param;
namespace event_type = system_interceptors::event_type;

class Parameters {
 public:
  explicit Parameters(ISystemEvent& event) : m_event(event) {}

  template <class T>
  std::optional<T> Number(std::uint32_t param) const {
    zym::types::range_t<const std::uint8_t*> view;
    if (m_event.GetParam(param, &view) != zym::ZYM_OK || view.size() != sizeof(T)) return std::nullopt;
    T value{};
    std::memcpy(&value, view.begin(), sizeof(T));
    return value;
  }

  // An empty text is one that nobody could read.
  std::u16string_view Text(std::uint32_t param) const {
    zym::types::range_t<const std::uint8_t*> view;
    if (m_event.GetParam(param, &view) != zym::ZYM_OK || view.empty()) return {};
    return {reinterpret_cast<const char16_t*>(view.begin()), view.size() / sizeof(char16_t)};
  }

 private:
  ISystemEvent& m_event;
};

}  // namespace

// The end of a process has moved it to the finished ones, which are found by pid; any other image by its
// unique pid.
bool ProcessEventReader::FindInCache() {
  const ProcessRecord& process = m_event.process;
  if (m_event.type == event_type::kExitProcess && m_cache->Get(static_cast<pid_t>(process.pid), m_found) &&
      m_found.uniquePid == process.uniquePid)
    return true;
  return process.uniquePid && m_cache->GetByUniquePid(*process.uniquePid, m_found);
}

const ProcessEvent& ProcessEventReader::Read(ISystemEvent& event) {
  const Parameters parameters(event);
  const std::uint64_t* sequence = nullptr;
  event.GetEventId(&sequence);
  m_event.type = event.GetType();
  m_event.sequence = *sequence;
  m_event.timestamp = parameters.Number<std::uint64_t>(event_param::kTimestamp);
  m_event.fromExec = parameters.Number<std::uint32_t>(event_param::kFromExec) == 1U;
  m_event.fake = event.IsFake();

  ProcessRecord& process = m_event.process;
  process.pid = event.GetPid();
  process.uniquePid = UnlessAllOnes(parameters.Number<std::uint64_t>(event_param::kUniquePid));
  process.parentPid = UnlessAllOnes(parameters.Number<std::uint32_t>(event_param::kParentPid));
  process.uniqueParentPid = UnlessAllOnes(parameters.Number<std::uint64_t>(event_param::kUniqueParentPid));
  process.sessionId = parameters.Number<std::uint32_t>(event_param::kSessionId);
  process.imagePath = parameters.Text(event_param::kImagePath);
  process.workingDirectory = parameters.Text(event_param::kWorkingDirectory);
  process.commandLine = parameters.Text(event_param::kCommandLine);
  process.userId = parameters.Number<std::uint32_t>(event_param::kRealUserId);
  process.state = parameters.Number<std::uint32_t>(event_param::kState).value_or(qor::kStarting);

  const bool begins = m_event.type == event_type::kCreateProcess;
  const bool isCached = FindInCache();
  process.creatorPid.reset();
  if (isCached)
    process.creatorPid = UnlessAllOnes(std::optional(m_found.creatorPid));
  else if (begins)
    process.creatorPid = UnlessAllOnes(std::optional(event.GetCpid()));
  process.uniqueCreatorPid = isCached ? UnlessAllOnes(std::optional(m_found.creatorUniquePid)) : std::nullopt;
  process.startTime = isCached ? UnlessZero(m_found.startTime) : std::nullopt;
  process.exitTime = isCached && !begins ? UnlessZero(m_found.exitTime) : std::nullopt;
  process.flags = isCached ? std::optional(m_found.flags) : std::nullopt;
  // Only the kernel's own threads have no session: any other 0 was never read.
  if (process.sessionId == 0U && (process.flags.value_or(0) & qor::kSystemProcess) == 0)
    process.sessionId.reset();
  return m_event;
}

}  // namespace pmhost
