#include "process_manager/non_blocking/netlink_parser.h"

#include <utility>

#include "zym/trace.h"

namespace qor::process_manager::non_blocking {
namespace {

using zym::trace::kCall;

// What happened, unsigned: the exit event has the top bit set and must not sort below the others.
enum What : std::uint32_t {
  kEventNone = 0x00000000,
  kEventFork = 0x00000001,
  kEventExec = 0x00000002,
  kEventUid = 0x00000004,
  kEventGid = 0x00000040,
  kEventSid = 0x00000080,
  kEventExit = 0x80000000,
};

// The one place that decides; Reject says which of these it was.
bool IsWhole(const Message* msg, std::uint64_t size) {
  return size >= sizeof(Message) && (msg->hdr.nlmsg_flags & 2) == 0 && msg->hdr.nlmsg_type == 0x3;
}

// The event of a message into a clear record.
zym::result_t Decode(const Message& msg, EventRecord& out) {
  const std::uint32_t pid = msg.data[0];
  const std::uint32_t tgid = msg.data[1];
  const auto take = [&](EventRecord::Type type, std::uint32_t process) {
    out.type = type;
    out.pid = process;
    out.timestamp = msg.timestamp_ns;
  };
  const auto takeIds = [&] {
    out.first = msg.data[2];
    out.second = msg.data[3];
  };
  switch (msg.what) {
    case kEventUid:
      take(EventRecord::kUid, tgid);
      takeIds();
      return zym::ZYM_OK;

    case kEventFork: {
      const std::uint32_t childPid = msg.data[2];
      const std::uint32_t childTgid = msg.data[3];
      if (childTgid != childPid) return zym::ZYM_FALSE;  // a thread was created
      take(EventRecord::kFork, childTgid);
      out.first = tgid;
      return zym::ZYM_OK;
    }

    case kEventNone:
      return zym::ZYM_OK;

    case kEventExec:
      // Also for an exec by a thread that doesn't lead its process: it becomes the leader.
      take(EventRecord::kExec, tgid);
      return zym::ZYM_OK;

    case kEventSid:
      return zym::ZYM_FALSE;

    case kEventExit:
      if (tgid != pid) return zym::ZYM_FALSE;  // a thread ended
      take(EventRecord::kExit, tgid);
      return zym::ZYM_OK;

    case kEventGid:
      take(EventRecord::kGid, tgid);
      takeIds();
      return zym::ZYM_OK;

    default:
      return zym::ZYM_E_UNSPECIFIED;
  }
}

}  // namespace

NetlinkParser::NetlinkParser(zym::intrusive_ptr<zym::ITracer> tracer) : m_tracer(std::move(tracer)) {
  ZYM_TRACE(m_tracer, kCall, __func__ << "() ");
}

// What is traced is traced behind the work, in functions of their own: the way of a datagram that nobody
// traces is a handful of branches and moves.
zym::result_t NetlinkParser::Parse(const Message* msg, std::uint64_t size, EventRecord* out) const {
  *out = {};
  if (!IsWhole(msg, size)) [[unlikely]]
    return Reject(msg, size);
  const zym::result_t result = Decode(*msg, *out);
  if (m_tracer) Trace(*msg, size, result, *out);
  return result;
}

zym::result_t NetlinkParser::Reject(const Message* msg, std::uint64_t size) const {
  TraceSize(size);
  ZYM_CHECK(m_tracer, size >= sizeof(Message), zym::ZYM_E_INVALID_ARGUMENT, "Message is too small");
  // Multipart datagrams don't occur on this channel: one is an error, and nothing is reassembled.
  ZYM_CHECK(m_tracer, !(msg->hdr.nlmsg_flags & 2), zym::ZYM_E_INVALID_ARGUMENT,
            "Multipart messages are not supported");
  ZYM_CHECK(m_tracer, msg->hdr.nlmsg_type == 0x3, zym::ZYM_E_INVALID_ARGUMENT, "Message is not complete");
  return zym::ZYM_E_INVALID_ARGUMENT;
}

void NetlinkParser::TraceSize(std::uint64_t size) const {
  ZYM_TRACE(m_tracer, kCall, "Parse: " << size);
}

void NetlinkParser::Trace(const Message& msg, std::uint64_t size, zym::result_t result,
                          const EventRecord& out) const {
  constexpr const char* kName = "Parse: ";
  TraceSize(size);
  if (result != zym::ZYM_OK) return;
  switch (out.type) {
    case EventRecord::kNone:
      ZYM_TRACE(m_tracer, kCall, kName << "socket setup done");
      return;
    case EventRecord::kFork:
      ZYM_TRACE(m_tracer, kCall,
                kName << "fork: pid=" << out.pid << ", parent=" << out.first << ", ts=" << out.timestamp);
      return;
    case EventRecord::kExec:
      ZYM_TRACE(m_tracer, kCall, kName << "exec: pid=" << out.pid << ", ts=" << out.timestamp);
      return;
    case EventRecord::kExit:
      ZYM_TRACE(m_tracer, kCall,
                kName << "exit: pid=" << out.pid << ", code=" << msg.data[2] << ", signal=" << msg.data[3]
                      << ", ts=" << out.timestamp);
      return;
    case EventRecord::kUid:
      ZYM_TRACE(m_tracer, kCall,
                kName << "uid: pid=" << out.pid << ", ruid=" << out.first << ", euid=" << out.second
                      << ", ts=" << out.timestamp);
      return;
    case EventRecord::kGid:
      ZYM_TRACE(m_tracer, kCall,
                kName << "gid: pid=" << out.pid << ", rgid=" << out.first << ", egid=" << out.second
                      << ", ts=" << out.timestamp);
      return;
  }
}

}  // namespace qor::process_manager::non_blocking
