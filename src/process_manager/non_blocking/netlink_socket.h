// Socket on the kernel's proc connector.
#pragma once

#include <libmnl/libmnl.h>

#include <cstdint>
#include <memory>

#include "process_manager/non_blocking/poll_loop.h"
#include "zym/tracer.h"

namespace qor::process_manager::non_blocking {

// Owns the descriptor. Non-blocking and close-on-exec.
class NetlinkSocket final : public IDatagramSource {
 public:
  // The receive buffer takes the bursts of a busy machine.
  static constexpr int kReceiveBufferSize = 0x200000;

  // A buffer that is large enough stays. A failure is not reported: the socket is used as it is.
  static void WidenReceiveBuffer(zym::ITracer* tracer, mnl_socket* socket);

  // Opens and binds; on failure the reason is traced and the pointer is null. Older kernels ask for
  // CAP_NET_ADMIN (NL_CFG_F_NONROOT_RECV in drivers/connector/connector.c; seen on 6.18: every user may). The
  // connector is in the machine's first network namespace alone.
  static std::unique_ptr<NetlinkSocket> Open(zym::ITracer* tracer);

  // Subscribes to the process events, or cancels that. ZYM_E_UNSPECIFIED: sending failed; the reason is
  // traced.
  zym::result_t Configure(zym::ITracer* tracer, bool listen);

  [[nodiscard]] int GetDescriptor() const override { return mnl_socket_get_fd(m_socket.get()); }

  // Who sent a datagram needn't be looked at: in this protocol only the kernel and those with CAP_NET_ADMIN
  // may send to another socket (netlink_sendmsg in net/netlink/af_netlink.c). ENOBUFS: the kernel dropped
  // datagrams before this one. ENOSPC: this one is longer than `size`, and lost.
  std::int64_t Receive(void* buffer, std::size_t size) override {
    return mnl_socket_recvfrom(m_socket.get(), buffer, size);
  }

 private:
  struct Close {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
  };
  using Handle = std::unique_ptr<mnl_socket, Close>;

  explicit NetlinkSocket(Handle socket) : m_socket(std::move(socket)) {}

  Handle m_socket;
};

}  // namespace qor::process_manager::non_blocking
