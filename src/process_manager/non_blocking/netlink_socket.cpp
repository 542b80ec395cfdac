#include "process_manager/non_blocking/netlink_socket.h"

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "process_manager/non_blocking/mnl_receive_buffer.h"
#include "zym/trace.h"

// The traces name two steps of the source's start and stop, InitNetlinkConnector and
// ConfigureNetlinkConnector, and not the functions here: meant.
namespace qor::process_manager::non_blocking {

void NetlinkSocket::WidenReceiveBuffer(zym::ITracer* tracer, mnl_socket* socket) {
  const int size = mnl_socket_get_rcv_buf_size(socket);
  if (size > 0)
    ZYM_TRACE(tracer, zym::trace::kCall,
              "InitNetlinkConnector: default netlink socket receive buffer size: " << size);
  if (size >= kReceiveBufferSize) return;
  if (mnl_socket_set_rcv_buf_size(socket, kReceiveBufferSize) == 0)
    ZYM_TRACE(tracer, zym::trace::kCall,
              "InitNetlinkConnector: new netlink socket receive buffer size: " << kReceiveBufferSize);
}

std::unique_ptr<NetlinkSocket> NetlinkSocket::Open(zym::ITracer* tracer) {
  Handle socket(mnl_socket_open2(NETLINK_CONNECTOR, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!socket) {
    const int error = errno;
    ZYM_TRACE(tracer, zym::trace::kFailure,
              "InitNetlinkConnector: Cannot initialize netlink connector socket: " << std::strerror(error));
    return nullptr;
  }
  WidenReceiveBuffer(tracer, socket.get());
  if (mnl_socket_bind(socket.get(), CN_IDX_PROC, MNL_SOCKET_AUTOPID) < 0) {
    const int error = errno;
    ZYM_TRACE(tracer, zym::trace::kFailure, "InitNetlinkConnector:  Cannot bind: " << std::strerror(error));
    return nullptr;
  }
  return std::unique_ptr<NetlinkSocket>(new NetlinkSocket(std::move(socket)));
}

zym::result_t NetlinkSocket::Configure(zym::ITracer* tracer, bool listen) {
  // The operation is the payload of the connector's message, right behind its header.
  const std::uint32_t operation = listen ? PROC_CN_MCAST_LISTEN : PROC_CN_MCAST_IGNORE;
  constexpr std::size_t kBodySize = sizeof(cn_msg) + sizeof(operation);
  static_assert(kBodySize == 24);

  alignas(nlmsghdr) char buffer[NLMSG_SPACE(kBodySize)];
  nlmsghdr* const header = mnl_nlmsg_put_header(buffer);
  header->nlmsg_type = NLMSG_DONE;
  header->nlmsg_flags = NLM_F_REQUEST;
  header->nlmsg_pid = static_cast<std::uint32_t>(::getpid());
  auto* const message = static_cast<cn_msg*>(mnl_nlmsg_put_extra_header(header, kBodySize));
  message->id.idx = CN_IDX_PROC;
  message->id.val = CN_VAL_PROC;
  message->len = sizeof(operation);
  std::memcpy(message->data, &operation, sizeof(operation));

  if (mnl_socket_sendto(m_socket.get(), header, header->nlmsg_len) < 0) {
    const int error = errno;
    ZYM_TRACE(tracer, zym::trace::kFailure,
              "ConfigureNetlinkConnector: Cannot send netlink: " << std::strerror(error));
    return zym::ZYM_E_UNSPECIFIED;
  }
  return zym::ZYM_OK;
}

}  // namespace qor::process_manager::non_blocking
