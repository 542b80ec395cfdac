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

EventRecord MakeRecord(EventRecord::Type type, std::uint32_t pid, const Message& msg) {
  EventRecord record;
  record.type = type;
  record.pid = pid;
  record.timestamp = msg.timestamp_ns;
  return record;
}

}  // namespace

NetlinkParser::NetlinkParser(zym::intrusive_ptr<zym::ITracer> tracer) : m_tracer(std::move(tracer)) {
  ZYM_TRACE(m_tracer, kCall, __func__ << "() ");
}

zym::result_t NetlinkParser::Parse(const Message* msg, std::uint64_t size, EventRecord* out) const {
  ZYM_TRACE(m_tracer, kCall, __func__ << ": " << size);
  *out = {};
  ZYM_CHECK(m_tracer, size >= sizeof(Message), zym::ZYM_E_INVALID_ARGUMENT, "Message is too small");
  // Multipart datagrams don't occur on this channel: one is an error, and nothing is reassembled.
  ZYM_CHECK(m_tracer, !(msg->hdr.nlmsg_flags & 2), zym::ZYM_E_INVALID_ARGUMENT,
            "Multipart messages are not supported");
  ZYM_CHECK(m_tracer, msg->hdr.nlmsg_type == 0x3, zym::ZYM_E_INVALID_ARGUMENT, "Message is not complete");
  return Decode(*msg, *out);
}

zym::result_t NetlinkParser::Decode(const Message& msg, EventRecord& out) const {
  constexpr const char* kName = "Parse: ";
  const std::uint32_t pid = msg.data[0];
  const std::uint32_t tgid = msg.data[1];
  switch (msg.what) {
    case kEventUid:
      out = MakeRecord(EventRecord::kUid, tgid, msg);
      out.first = msg.data[2];
      out.second = msg.data[3];
      ZYM_TRACE(m_tracer, kCall,
                kName << "uid: pid=" << out.pid << ", ruid=" << out.first << ", euid=" << out.second
                      << ", ts=" << out.timestamp);
      return zym::ZYM_OK;

    case kEventFork: {
      const std::uint32_t childPid = msg.data[2];
      const std::uint32_t childTgid = msg.data[3];
      if (childTgid != childPid) return zym::ZYM_FALSE;  // a thread was created
      out = MakeRecord(EventRecord::kFork, childTgid, msg);
      out.first = tgid;
      ZYM_TRACE(m_tracer, kCall,
                kName << "fork: pid=" << out.pid << ", parent=" << out.first << ", ts=" << out.timestamp);
      return zym::ZYM_OK;
    }

    case kEventNone:
      ZYM_TRACE(m_tracer, kCall, kName << "socket setup done");
      return zym::ZYM_OK;

    case kEventExec:
      // Also for an exec by a thread that doesn't lead its process: it becomes the leader.
      out = MakeRecord(EventRecord::kExec, tgid, msg);
      ZYM_TRACE(m_tracer, kCall, kName << "exec: pid=" << out.pid << ", ts=" << out.timestamp);
      return zym::ZYM_OK;

    case kEventSid:
      return zym::ZYM_FALSE;

    case kEventExit:
      if (tgid != pid) return zym::ZYM_FALSE;  // a thread ended
      out = MakeRecord(EventRecord::kExit, tgid, msg);
      ZYM_TRACE(m_tracer, kCall,
                kName << "exit: pid=" << out.pid << ", code=" << msg.data[2] << ", signal=" << msg.data[3]
                      << ", ts=" << out.timestamp);
      return zym::ZYM_OK;

    case kEventGid:
      out = MakeRecord(EventRecord::kGid, tgid, msg);
      out.first = msg.data[2];
      out.second = msg.data[3];
      ZYM_TRACE(m_tracer, kCall,
                kName << "gid: pid=" << out.pid << ", rgid=" << out.first << ", egid=" << out.second
                      << ", ts=" << out.timestamp);
      return zym::ZYM_OK;

    default:
      return zym::ZYM_E_UNSPECIFIED;
  }
}

}  // namespace qor::process_manager::non_blocking
