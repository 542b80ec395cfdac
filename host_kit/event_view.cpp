#include "host_kit/event_view.h"

#include <limits>

#include "zym/utf.h"

namespace host_kit {
namespace {

namespace event_param = system_interceptors::event_param;
namespace event_type = system_interceptors::event_type;

// All ones is how the module writes an id that isn't known.
template <class T>
std::optional<T> UnlessAllOnes(std::optional<T> id) {
  return id == std::numeric_limits<T>::max() ? std::nullopt : id;
}

std::optional<std::string> Utf8(std::optional<std::u16string_view> text) {
  return text ? std::optional(zym::Utf16ToUtf8Lossy(*text)) : std::nullopt;
}

}  // namespace

EventKind EventView::GetKind() const {
  switch (m_event->GetType()) {
    case event_type::kCreateProcess:
      return GetNumber<std::uint32_t>(event_param::kFromExec) == 0U ? EventKind::kFork : EventKind::kExec;
    case event_type::kExitProcess:
      return EventKind::kExit;
    default:
      return EventKind::kOther;
  }
}

std::uint64_t EventView::GetSequence() const {
  const std::uint64_t* sequence = nullptr;
  m_event->GetEventId(&sequence);
  return *sequence;
}

std::optional<WallTime> EventView::GetTime() const {
  const auto timestamp = GetNumber<std::uint64_t>(event_param::kTimestamp);
  return timestamp ? std::optional(WallTimeOfMonotonic(*timestamp)) : std::nullopt;
}

std::optional<std::uint64_t> EventView::GetUniquePid() const {
  return UnlessAllOnes(GetNumber<std::uint64_t>(event_param::kUniquePid));
}

std::optional<std::uint32_t> EventView::GetParentPid() const {
  return UnlessAllOnes(GetNumber<std::uint32_t>(event_param::kParentPid));
}

std::optional<std::uint64_t> EventView::GetUniqueParentPid() const {
  return UnlessAllOnes(GetNumber<std::uint64_t>(event_param::kUniqueParentPid));
}

std::optional<std::uint32_t> EventView::GetCreatorPid() const {
  return UnlessAllOnes(std::optional(m_event->GetCpid()));
}

std::optional<std::uint32_t> EventView::GetSessionId() const {
  return GetNumber<std::uint32_t>(event_param::kSessionId);
}

std::optional<std::uint32_t> EventView::GetRealUserId() const {
  return GetNumber<std::uint32_t>(event_param::kRealUserId);
}

std::optional<std::uint64_t> EventView::GetMountNamespaceId() const {
  return UnlessAllOnes(GetNumber<std::uint64_t>(event_param::kMountNamespaceId));
}

std::optional<std::uint32_t> EventView::GetState() const {
  return GetNumber<std::uint32_t>(event_param::kState);
}

std::optional<std::string> EventView::GetImagePath() const {
  return Utf8(GetText(event_param::kImagePath));
}

std::optional<std::string> EventView::GetWorkingDirectory() const {
  return Utf8(GetText(event_param::kWorkingDirectory));
}

std::optional<std::string> EventView::GetCommandLine() const {
  return Utf8(GetText(event_param::kCommandLine));
}

std::optional<std::u16string_view> EventView::GetText(std::uint32_t param) const {
  const Bytes bytes = GetBytes(param);
  if (bytes.empty()) return std::nullopt;
  // A text of the event: char16_t is what lies there.
  return std::u16string_view(reinterpret_cast<const char16_t*>(bytes.begin()),
                             bytes.size() / sizeof(char16_t));
}

EventView::Bytes EventView::GetBytes(std::uint32_t param) const {
  Bytes bytes;
  return m_event->GetParam(param, &bytes) == zym::ZYM_OK ? bytes : Bytes();
}

}  // namespace host_kit
