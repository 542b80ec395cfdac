#include "process_manager/non_blocking/netlink_parser.h"

#include <utility>

#include "zym/trace.h"

namespace qor::process_manager::non_blocking {
namespace {

using zym::trace::kCall;

// Older headers declare the enumerators inside of proc_event, newer ones beside it.
using What = decltype(proc_event::what);

}  // namespace

NetlinkParser::NetlinkParser(zym::intrusive_ptr<zym::ITracer> tracer) : m_tracer(std::move(tracer)) {
  ZYM_TRACE(m_tracer, kCall, __func__ << "() ");
}

zym::result_t NetlinkParser::Parse(const Message* msg, std::uint64_t size, EventRecord* out) const {
  return m_tracer ? Parse(m_tracer.get(), msg, size, out) : Parse(nullptr, msg, size, out);
}

template <class Tracer>
zym::result_t NetlinkParser::Parse(Tracer tracer, const Message* msg, std::uint64_t size, EventRecord* out) {
  *out = {};
  ZYM_TRACE(tracer, kCall, __func__ << ": " << size);
  ZYM_CHECK(tracer, size >= sizeof(Message), zym::ZYM_E_INVALID_ARGUMENT, "Message is too small");
  // Multipart datagrams don't occur on this channel: one is an error, and nothing is reassembled.
  ZYM_CHECK_AS(tracer, "!(msg->hdr.nlmsg_flags & 2)", (msg->hdr.nlmsg_flags & NLM_F_MULTI) == 0,
               zym::ZYM_E_INVALID_ARGUMENT, "Multipart messages are not supported");
  ZYM_CHECK_AS(tracer, "msg->hdr.nlmsg_type == 0x3", msg->hdr.nlmsg_type == NLMSG_DONE,
               zym::ZYM_E_INVALID_ARGUMENT, "Message is not complete");

  const auto fill = [&](EventRecord::Type type, std::uint32_t pid, std::uint32_t first = EventRecord::kUnset,
                        std::uint32_t second = 0) {
    *out = {type, pid, first, second, msg->timestamp_ns};
  };
  switch (msg->what) {
    case What::PROC_EVENT_NONE:
      ZYM_TRACE(tracer, kCall, __func__ << ": socket setup done");
      return zym::ZYM_OK;

    case What::PROC_EVENT_FORK: {
      const auto fork = msg->event_data.fork;
      if (fork.child_tgid != fork.child_pid) return zym::ZYM_FALSE;  // a thread was created
      fill(EventRecord::kFork, fork.child_tgid, fork.parent_tgid);
      ZYM_TRACE(
          tracer, kCall,
          __func__ << ": fork: pid=" << out->pid << ", parent=" << out->first << ", ts=" << out->timestamp);
      return zym::ZYM_OK;
    }

    case What::PROC_EVENT_EXEC:
      // Also for an exec by a thread that doesn't lead its process: it becomes the leader.
      fill(EventRecord::kExec, msg->event_data.exec.process_tgid);
      ZYM_TRACE(tracer, kCall, __func__ << ": exec: pid=" << out->pid << ", ts=" << out->timestamp);
      return zym::ZYM_OK;

    case What::PROC_EVENT_UID: {
      const auto id = msg->event_data.id;
      fill(EventRecord::kUid, id.process_tgid, id.r.ruid, id.e.euid);
      ZYM_TRACE(tracer, kCall,
                __func__ << ": uid: pid=" << out->pid << ", ruid=" << out->first << ", euid=" << out->second
                         << ", ts=" << out->timestamp);
      return zym::ZYM_OK;
    }

    case What::PROC_EVENT_GID: {
      const auto id = msg->event_data.id;
      fill(EventRecord::kGid, id.process_tgid, id.r.rgid, id.e.egid);
      ZYM_TRACE(tracer, kCall,
                __func__ << ": gid: pid=" << out->pid << ", rgid=" << out->first << ", egid=" << out->second
                         << ", ts=" << out->timestamp);
      return zym::ZYM_OK;
    }

    case What::PROC_EVENT_SID:
      return zym::ZYM_FALSE;

    case What::PROC_EVENT_EXIT: {
      const auto exit = msg->event_data.exit;
      if (exit.process_tgid != exit.process_pid) return zym::ZYM_FALSE;  // a thread ended
      fill(EventRecord::kExit, exit.process_tgid);
      ZYM_TRACE(tracer, kCall,
                __func__ << ": exit: pid=" << out->pid << ", code=" << exit.exit_code
                         << ", signal=" << exit.exit_signal << ", ts=" << out->timestamp);
      return zym::ZYM_OK;
    }

    default:
      return zym::ZYM_E_UNSPECIFIED;
  }
}

}  // namespace qor::process_manager::non_blocking
