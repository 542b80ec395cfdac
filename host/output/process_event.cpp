#include "host/output/process_event.h"

#include <cstring>

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
  std::optional<std::u16string_view> Text(std::uint32_t param) const {
    zym::types::range_t<const std::uint8_t*> view;
    if (m_event.GetParam(param, &view) != zym::ZYM_OK || view.empty()) return std::nullopt;
    return std::u16string_view(reinterpret_cast<const char16_t*>(view.begin()),
                               view.size() / sizeof(char16_t));
  }

 private:
  ISystemEvent& m_event;
};

template <class T>
std::optional<T> UnlessAllOnes(std::optional<T> value) {
  return value == static_cast<T>(-1) ? std::nullopt : value;
}

std::optional<zym::datetime_t> UnlessZero(zym::datetime_t time) {
  return time != 0 ? std::optional(time) : std::nullopt;
}

}  // namespace

const char* EventName(std::uint32_t type) {
  return type == event_type::kCreateProcess ? "create_process" : "exit_process";
}

// The end of a process has moved it to the finished ones, which are found by pid; any other image by its
// unique pid.
bool ProcessEventReader::FindInCache(const ProcessEvent& event) {
  if (event.type == event_type::kExitProcess && m_cache->Get(static_cast<pid_t>(event.pid), m_found) &&
      m_found.uniquePid == event.uniquePid)
    return true;
  return event.uniquePid && m_cache->GetByUniquePid(*event.uniquePid, m_found);
}

ProcessEvent ProcessEventReader::Read(ISystemEvent& event) {
  const Parameters parameters(event);
  const std::uint64_t* sequence = nullptr;
  event.GetEventId(&sequence);
  ProcessEvent result{
      .type = event.GetType(),
      .sequence = *sequence,
      .timestamp = parameters.Number<std::uint64_t>(event_param::kTimestamp),
      .fromExec = parameters.Number<std::uint32_t>(event_param::kFromExec) == 1U,
      .fake = event.IsFake(),
      .pid = event.GetPid(),
      .uniquePid = UnlessAllOnes(parameters.Number<std::uint64_t>(event_param::kUniquePid)),
      .parentPid = UnlessAllOnes(parameters.Number<std::uint32_t>(event_param::kParentPid)),
      .uniqueParentPid = UnlessAllOnes(parameters.Number<std::uint64_t>(event_param::kUniqueParentPid)),
      .sessionId = parameters.Number<std::uint32_t>(event_param::kSessionId),
      .userId = parameters.Number<std::uint32_t>(event_param::kRealUserId),
      .imagePath = parameters.Text(event_param::kImagePath),
      .workingDirectory = parameters.Text(event_param::kWorkingDirectory),
      .commandLine = parameters.Text(event_param::kCommandLine),
      .state = parameters.Number<std::uint32_t>(event_param::kState).value_or(qor::kStarting),
  };
  if (result.type == event_type::kCreateProcess)
    result.creatorPid = UnlessAllOnes(std::optional(event.GetCpid()));
  result.inCache = FindInCache(result);
  if (result.inCache) {
    result.creatorPid = UnlessAllOnes(std::optional(m_found.creatorPid));
    result.uniqueCreatorPid = UnlessAllOnes(std::optional(m_found.creatorUniquePid));
    result.startTime = UnlessZero(m_found.startTime);
    result.exitTime = result.type == event_type::kExitProcess ? UnlessZero(m_found.exitTime) : std::nullopt;
    result.flags = m_found.flags;
  }
  // Only the kernel's own threads have no session: any other 0 was never read.
  if (result.sessionId == 0U && (result.flags & qor::kSystemProcess) == 0) result.sessionId.reset();
  return result;
}

}  // namespace pmhost
