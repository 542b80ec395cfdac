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

}  // namespace

const char* EventName(std::uint32_t type) {
  return type == event_type::kCreateProcess ? "create_process" : "exit_process";
}

// The end of a process has moved it to the finished ones, which are found by pid; any other image by its
// unique pid.
bool ProcessEventReader::FindInCache(std::uint32_t type, const ShownProcess& process) {
  if (type == event_type::kExitProcess && m_cache->Get(static_cast<pid_t>(process.pid), m_found) &&
      m_found.uniquePid == process.uniquePid)
    return true;
  return process.uniquePid && m_cache->GetByUniquePid(*process.uniquePid, m_found);
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
      .process =
          {
              .pid = event.GetPid(),
              .uniquePid = UnlessAllOnes(parameters.Number<std::uint64_t>(event_param::kUniquePid)),
              .parentPid = UnlessAllOnes(parameters.Number<std::uint32_t>(event_param::kParentPid)),
              .uniqueParentPid =
                  UnlessAllOnes(parameters.Number<std::uint64_t>(event_param::kUniqueParentPid)),
              .sessionId = parameters.Number<std::uint32_t>(event_param::kSessionId),
              .imagePath = parameters.Text(event_param::kImagePath),
              .workingDirectory = parameters.Text(event_param::kWorkingDirectory),
              .commandLine = parameters.Text(event_param::kCommandLine),
              .userId = parameters.Number<std::uint32_t>(event_param::kRealUserId),
              .state = parameters.Number<std::uint32_t>(event_param::kState).value_or(qor::kStarting),
          },
  };
  ShownProcess& process = result.process;
  if (result.type == event_type::kCreateProcess)
    process.creatorPid = UnlessAllOnes(std::optional(event.GetCpid()));
  if (FindInCache(result.type, process)) {
    process.creatorPid = UnlessAllOnes(std::optional(m_found.creatorPid));
    process.uniqueCreatorPid = UnlessAllOnes(std::optional(m_found.creatorUniquePid));
    process.startTime = UnlessZero(m_found.startTime);
    if (result.type == event_type::kExitProcess) process.exitTime = UnlessZero(m_found.exitTime);
    process.flags = m_found.flags;
  }
  // Only the kernel's own threads have no session: any other 0 was never read.
  if (process.sessionId == 0U && (process.flags.value_or(0) & qor::kSystemProcess) == 0)
    process.sessionId.reset();
  return result;
}

}  // namespace pmhost
