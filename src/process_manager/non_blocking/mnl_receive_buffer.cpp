#include "process_manager/non_blocking/mnl_receive_buffer.h"

#include <sys/socket.h>

int mnl_socket_get_rcv_buf_size(const mnl_socket* socket) {
  int size = 0;
  socklen_t length = sizeof(size);
  return ::getsockopt(mnl_socket_get_fd(socket), SOL_SOCKET, SO_RCVBUF, &size, &length) == 0 ? size : -1;
}

int mnl_socket_set_rcv_buf_size(const mnl_socket* socket, int size) {
  const int fd = mnl_socket_get_fd(socket);
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) == 0) return 0;
  return ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
}
