#include "host_kit/exit_event.h"

#include <string>
#include <type_traits>
#include <utility>

#include "zym/utf.h"

namespace host_kit {
namespace {

namespace event_param = system_interceptors::event_param;
using View = zym::types::range_t<const std::uint8_t*>;

constexpr std::uint32_t kNotFromAFork = 1;
constexpr std::uint64_t kZero = 0;

template <class T>
requires std::is_arithmetic_v<T> View ViewOf(const T& value) {
  const auto* const begin = reinterpret_cast<const std::uint8_t*>(&value);
  return {begin, begin + sizeof(value)};
}

View ViewOf(const zym::types::string16_t& text) {
  const auto* const begin = reinterpret_cast<const std::uint8_t*>(text.data());
  return {begin, begin + text.size() * sizeof(char16_t)};
}

}  // namespace

ExitEvent::ExitEvent(zym::intrusive_ptr<qor::process_manager::IEventInfoProvider> cache,
                     qor::process_manager::process_cache::EventInfo&& exit)
    : m_cache(std::move(cache)), m_exit(std::move(exit)) {}

zym::result_t ExitEvent::GetEventId(const std::uint64_t** id) {
  *id = &m_exit.sequence;
  return zym::ZYM_OK;
}

zym::result_t ExitEvent::GetParam(std::uint32_t param, View* value) {
  const qor::process_manager::process_cache::ProcessInformation& info = m_exit.info;
  const auto view = [value](const auto& field) {
    *value = ViewOf(field);
    return zym::ZYM_OK;
  };
  switch (param) {
    case event_param::kMountNamespaceId:
      return view(info.mountNamespaceId);
    case event_param::kTimestamp:
      return view(m_exit.timestamp);
    case event_param::kRealUserId:
      return info.realUserId ? view(*info.realUserId) : zym::ZYM_E_NOT_FOUND;
    case event_param::kPid:
      return view(info.pid);
    case event_param::kParentPid:
      return view(info.parentPid);
    case event_param::kUniquePid:
    case event_param::kUniquePidToo:
      return view(info.uniquePid);
    case event_param::kUniqueParentPid:
      return view(info.parentUniquePid);
    case event_param::kSessionId:
    case event_param::kSessionIdToo:
      return view(info.sessionId);
    case event_param::kImagePath:
      return view(info.imagePath);
    case event_param::kIsFake:
      return view(m_exit.isFake);
    case event_param::kFromExec:
      return view(kNotFromAFork);
    case event_param::kState:
      return view(info.state);
    case event_param::kAlwaysZero:
      return view(kZero);
    case event_param::kWorkingDirectory:
      return view(info.workingDirectory);
    case event_param::kCommandLine:
      return info.commandLine ? view(*info.commandLine) : zym::ZYM_E_NOT_FOUND;
    default:
      return zym::ZYM_E_NOT_SUPPORTED;
  }
}

bool ExitEvent::Complete() {
  m_cache->OnExitProcess(m_exit);
  return true;
}

zym::types::string16_t ExitEvent::ToString() {
  const qor::process_manager::process_cache::ProcessInformation& info = m_exit.info;
  return zym::Utf8ToUtf16Lossy(
      std::string(m_exit.isFake ? "fake " : "") + "exit_process, seq: " + std::to_string(m_exit.sequence) +
      ", pid: " + std::to_string(info.pid) + ", upid: " + std::to_string(info.uniquePid) +
      ", exe: " + zym::Utf16ToUtf8Lossy(info.imagePath));
}

}  // namespace host_kit
