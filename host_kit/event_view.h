// A process event's parameters as typed values.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "host_kit/wall_time.h"
#include "process_manager/system_event.h"

namespace host_kit {

// What happened to the process.
enum class EventKind {
  kFork,   // it began, as a copy of its parent
  kExec,   // a new image of it began; the end of the old one is an event before this one
  kExit,   // an image of it ended: with the process, or by an exec, whose new image follows at once
  kOther,  // not an event of processes
};

// Views an event, which must live as long as the view. Any thread. A value is absent when it isn't known: the
// process was gone before it could be read, or the event knows no such parameter.
class EventView {
 public:
  explicit EventView(qor::process_manager::ISystemEvent& event) : m_event(&event) {}

  [[nodiscard]] EventKind GetKind() const;
  // The event stands in for one that no source reported.
  [[nodiscard]] bool IsFake() const { return m_event->IsFake(); }
  // Unique in the life of the process cache, and in the order in which it learned of things.
  [[nodiscard]] std::uint64_t GetSequence() const;
  // When the kernel reported it.
  [[nodiscard]] std::optional<WallTime> GetTime() const;

  [[nodiscard]] std::uint32_t GetPid() const { return m_event->GetPid(); }
  // Of this image of the process (qor::UniquePidType).
  [[nodiscard]] std::optional<std::uint64_t> GetUniquePid() const;
  [[nodiscard]] std::optional<std::uint32_t> GetParentPid() const;
  [[nodiscard]] std::optional<std::uint64_t> GetUniqueParentPid() const;
  // Who made the image: the parent at a fork, the process itself at an exec.
  [[nodiscard]] std::optional<std::uint32_t> GetCreatorPid() const;
  // 0 for the kernel's own threads, and for a process whose session could not be read.
  [[nodiscard]] std::optional<std::uint32_t> GetSessionId() const;
  // IPosixProcessInformation::GetRealUserId says whose it is.
  [[nodiscard]] std::optional<std::uint32_t> GetRealUserId() const;
  // The inode of the mount namespace.
  [[nodiscard]] std::optional<std::uint64_t> GetMountNamespaceId() const;
  // qor::ProcessState.
  [[nodiscard]] std::optional<std::uint32_t> GetState() const;

  // Texts in UTF-8; what is not UTF-16 becomes U+FFFD. They throw only std::bad_alloc.
  [[nodiscard]] std::optional<std::string> GetImagePath() const;
  [[nodiscard]] std::optional<std::string> GetWorkingDirectory() const;
  // The arguments, joined by single blanks.
  [[nodiscard]] std::optional<std::string> GetCommandLine() const;

  // Any parameter of system_event.h as it is: an integer of the size of T, or a text in UTF-16 that lies in
  // the event. An empty text is absent: it stands for one that could not be read.
  template <class T>
  [[nodiscard]] std::optional<T> GetNumber(std::uint32_t param) const {
    const Bytes bytes = GetBytes(param);
    if (bytes.size() != sizeof(T)) return std::nullopt;
    T value{};
    std::memcpy(&value, bytes.begin(), sizeof(T));
    return value;
  }
  [[nodiscard]] std::optional<std::u16string_view> GetText(std::uint32_t param) const;

  [[nodiscard]] qor::process_manager::ISystemEvent& GetEvent() const { return *m_event; }

 private:
  using Bytes = zym::types::range_t<const std::uint8_t*>;

  // Empty when the event doesn't know the parameter.
  Bytes GetBytes(std::uint32_t param) const;

  qor::process_manager::ISystemEvent* m_event;
};

}  // namespace host_kit
