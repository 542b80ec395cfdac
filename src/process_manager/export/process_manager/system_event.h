// Events as handlers see them.
#pragma once

#include <cstdint>

#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace system_interceptors {

// The types of events, and of the filters that select them.
namespace event_type {
inline constexpr std::uint32_t kCreateProcess = 0x7fc4443b;
inline constexpr std::uint32_t kExitProcess = 0x0ed23a39;
inline constexpr std::uint32_t kFileCreated = 0x4889b764;
inline constexpr std::uint32_t kFileChanged = 0x59473d26;
inline constexpr std::uint32_t kConsoleInput = 0x0e21bfd7;
inline constexpr std::uint32_t kJournal = 0xda30757c;
}  // namespace event_type

// The parameters of process events. Integers are in host order; texts are UTF-16 without a terminator. The
// real user is what IPosixProcessInformation says of it (process_information.h).
namespace event_param {
inline constexpr std::uint32_t kMountNamespaceId = 0x00000014;  // u64, all ones when unknown
inline constexpr std::uint32_t kTimestamp = 0x0c000007;         // u64, nanoseconds of CLOCK_MONOTONIC
inline constexpr std::uint32_t kRealUserId = 0x01000800;        // u32, or ZYM_E_NOT_FOUND
inline constexpr std::uint32_t kPid = 0x02000000;               // u32
inline constexpr std::uint32_t kParentPid = 0x02000100;         // u32
inline constexpr std::uint32_t kUniquePid = 0x05000200;         // u64
inline constexpr std::uint32_t kUniquePidToo = 0x85000004;      // u64, the same under its other number
inline constexpr std::uint32_t kUniqueParentPid = 0x05000300;   // u64
inline constexpr std::uint32_t kSessionId = 0x05000f00;         // u32
inline constexpr std::uint32_t kSessionIdToo = 0x82000002;      // u32, the same under its other number
inline constexpr std::uint32_t kImagePath = 0x0b000400;         // text
inline constexpr std::uint32_t kIsFake = 0x0e000000;            // u8
inline constexpr std::uint32_t kFromExec = 0x82001500;          // u32, 0: a create by a fork; 1: any other
inline constexpr std::uint32_t kState = 0x82001600;             // u32, ProcessState
inline constexpr std::uint32_t kAlwaysZero = 0x85000900;        // u64, always 0
inline constexpr std::uint32_t kWorkingDirectory = 0x8b000600;  // text
inline constexpr std::uint32_t kCommandLine = 0x8b000700;       // text, or ZYM_E_NOT_FOUND
}  // namespace event_param

namespace event_processing {

struct IEvent : zym::IObject {
  // Points at the event's sequence number, which lives as long as the event. Numbers are unique in the life
  // of a process cache and grow in the order in which it learned of things.
  virtual zym::result_t GetEventId(const std::uint64_t** id) = 0;

  // A view of bytes inside the event, valid while the event lives. ZYM_E_NOT_FOUND: the event doesn't know
  // it. ZYM_E_NOT_SUPPORTED: events of this type have no such parameter.
  virtual zym::result_t GetParam(std::uint32_t param, zym::types::range_t<const std::uint8_t*>* value) = 0;

 protected:
  ~IEvent() = default;
};

}  // namespace event_processing
}  // namespace system_interceptors

namespace qor::process_manager {

// Immutable once Complete has been called, which is before any handler sees the event: handlers may keep it
// and read it from any thread.
struct ISystemEvent : system_interceptors::event_processing::IEvent, zym::NonCopyable {
  static constexpr zym::iid_t kIid = 0xe8446ab7;

  virtual std::uint32_t GetType() = 0;
  virtual PidType GetPid() = 0;
  // The pid of the process that caused the event: the creator of the image.
  virtual PidType GetCpid() = 0;
  // The event stands in for one that no source reported.
  virtual bool IsFake() = 0;
  // Called by the dispatcher, once, before any handler. False: no handler is to see this event.
  virtual bool Complete() = 0;
  virtual zym::types::string16_t ToString() = 0;

 protected:
  ~ISystemEvent() = default;
};

}  // namespace qor::process_manager

namespace si_ep::create_process_event::extended_parameters {

// In the zym::IPropertyBag of a create_process event: a zym::IIO on the image of the new process, which is a
// qor::IFileDescriptor (file_descriptor.h) as well.
inline constexpr std::uint32_t ExecutableFileIO = 0x81000000;

}  // namespace si_ep::create_process_event::extended_parameters
