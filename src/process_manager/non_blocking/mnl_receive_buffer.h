// Two calls on a netlink socket's receive buffer that the public libmnl lacks, in its manner.
#pragma once

#include <libmnl/libmnl.h>

extern "C" {

// The size in bytes as the kernel keeps it: twice what was asked for (socket(7)). -1 with errno on a failure.
int mnl_socket_get_rcv_buf_size(const mnl_socket* socket);

// Sets it, past the system's limit (net.core.rmem_max) if this process has CAP_NET_ADMIN. 0 on success; -1
// with errno.
int mnl_socket_set_rcv_buf_size(const mnl_socket* socket, int size);
}
