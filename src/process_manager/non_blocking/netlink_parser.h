// Turns one datagram of the kernel's proc connector into one small event record.
#pragma once

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

// The datagram as it is read; integers in host order. struct nlmsghdr, struct cn_msg and struct proc_event
// (linux/netlink.h, linux/connector.h, linux/cn_proc.h) follow each other without padding, which puts the
// 64-bit timestamp off its natural alignment.
struct __attribute__((packed, aligned(4))) Message {
  struct {
    std::uint32_t nlmsg_len;
    std::uint16_t nlmsg_type;
    std::uint16_t nlmsg_flags;
    std::uint32_t nlmsg_seq;
    std::uint32_t nlmsg_pid;
  } hdr;
  struct {
    std::uint32_t idx;
    std::uint32_t val;
    std::uint32_t seq;
    std::uint32_t ack;
    std::uint16_t len;
    std::uint16_t flags;
  } connector;
  std::uint32_t what;
  std::uint32_t cpu;
  std::uint64_t timestamp_ns;
  std::uint32_t data[4];  // by `what`; pid and tgid, or the parent's, come first
};
static_assert(sizeof(Message) == 68);
static_assert(offsetof(Message, what) == 36 && offsetof(Message, timestamp_ns) == 44 &&
              offsetof(Message, data) == 52);

// No state beyond its tracer; called by the poll thread only. Never allocates.
class NetlinkParser {
 public:
  explicit NetlinkParser(zym::intrusive_ptr<zym::ITracer> tracer);

  // `size` is the length of the datagram; what lies behind the first 68 bytes is not read. Nothing is kept
  // from one call to the next.
  // ZYM_OK: `out` is filled; a record of type kNone acknowledges the subscription.
  // ZYM_FALSE: understood and of no interest: a thread started or ended, a session changed.
  // ZYM_E_INVALID_ARGUMENT: the message failed a check. ZYM_E_UNSPECIFIED: an event unknown here.
  zym::result_t Parse(const Message* msg, std::uint64_t size, EventRecord* out) const;

 private:
  zym::result_t Reject(const Message* msg, std::uint64_t size) const;
  void Trace(const Message& msg, std::uint64_t size, zym::result_t result, const EventRecord& out) const;
  void TraceSize(std::uint64_t size) const;

  zym::intrusive_ptr<zym::ITracer> m_tracer;
};

}  // namespace qor::process_manager::non_blocking
