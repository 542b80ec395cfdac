// Decoder of the kernel's proc connector: one datagram in, one small event record out.
#pragma once

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <limits>

#include "zym/intrusive_ptr.h"
#include "zym/tracer.h"

namespace qor::process_manager::non_blocking {

// What a datagram says. Ids are the kernel's (linux/cn_proc.h); the types are numbered here.
struct EventRecord {
  enum Type : std::uint32_t { kNone = 0, kFork = 1, kExec = 2, kExit = 3, kUid = 4, kGid = 5 };
  static constexpr std::uint32_t kUnset = std::numeric_limits<std::uint32_t>::max();

  Type type = kNone;
  std::uint32_t pid = kUnset;    // the process: the kernel's tgid
  std::uint32_t first = kUnset;  // fork: the parent; uid: the real uid; gid: the real gid
  std::uint32_t second = 0;      // uid: the effective uid; gid: the effective gid
  std::uint64_t timestamp = 0;   // nanoseconds of CLOCK_MONOTONIC
};

// The datagram as it is read: struct nlmsghdr, struct cn_msg and struct proc_event follow each other without
// padding. That puts the 64-bit timestamp off its natural alignment, so the event stands here anew.
struct __attribute__((packed, aligned(4))) Message {
  using EventData = decltype(proc_event::event_data);

  nlmsghdr hdr;
  std::byte connector[sizeof(cn_msg)];
  std::uint32_t what;  // PROC_EVENT_...
  std::uint32_t cpu;
  std::uint64_t timestamp_ns;
  union {
    decltype(EventData::fork) fork;
    decltype(EventData::exec) exec;
    decltype(EventData::id) id;
    struct {
      __kernel_pid_t process_pid;
      __kernel_pid_t process_tgid;
      std::uint32_t exit_code;
      std::uint32_t exit_signal;
    } exit;  // without the parent, which not every kernel adds
  } event_data;
};
static_assert(sizeof(Message) == 68);
static_assert(offsetof(Message, timestamp_ns) - offsetof(Message, what) ==
                  offsetof(proc_event, timestamp_ns) &&
              offsetof(Message, event_data) - offsetof(Message, what) == offsetof(proc_event, event_data));

// No state beyond its tracer; called by the poll thread only. Never allocates.
class NetlinkParser {
 public:
  explicit NetlinkParser(zym::intrusive_ptr<zym::ITracer> tracer);

  // `size` is the length of the datagram; what lies behind the first 68 bytes is not read. No call has an
  // effect on the next one.
  // ZYM_OK: `out` is filled; a record of type kNone acknowledges the subscription.
  // ZYM_FALSE: understood and of no interest: a thread started or ended, a session changed.
  // ZYM_E_INVALID_ARGUMENT: the message failed a check. ZYM_E_UNSPECIFIED: an event unknown here.
  zym::result_t Parse(const Message* msg, std::uint64_t size, EventRecord* out) const;

 private:
  // The whole of it, for a tracer or, as nullptr, for none. Compiled for each: a function that may write a
  // record needs a stack frame, which is a quarter of the time of a parse without a tracer.
  template <class Tracer>
  static zym::result_t Parse(Tracer tracer, const Message* msg, std::uint64_t size, EventRecord* out);

  zym::intrusive_ptr<zym::ITracer> m_tracer;
};

}  // namespace qor::process_manager::non_blocking
