#include "host_kit/proc_connector_probe.h"

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "qor_common/unique_fd.h"

namespace host_kit {
namespace {

using Clock = std::chrono::steady_clock;

// PROC_PID_INIT_INO and PROC_USER_INIT_INO of the kernel's proc_ns.h.
constexpr std::uint64_t kFirstPidNamespace = 4026531836;
constexpr std::uint64_t kFirstUserNamespace = 4026531837;

std::uint64_t InodeOf(const char* path) {
  struct stat status {};
  return ::stat(path, &status) == 0 ? status.st_ino : 0;
}

bool Subscribe(int socket, proc_cn_mcast_op operation, std::uint32_t number) {
  constexpr std::size_t kBodySize = sizeof(cn_msg) + sizeof(operation);
  alignas(nlmsghdr) char buffer[NLMSG_SPACE(kBodySize)] = {};
  nlmsghdr header{};
  header.nlmsg_len = NLMSG_LENGTH(kBodySize);
  header.nlmsg_type = NLMSG_DONE;
  cn_msg message{};
  message.id = {.idx = CN_IDX_PROC, .val = CN_VAL_PROC};
  message.ack = number;
  message.len = sizeof(operation);
  std::memcpy(buffer, &header, sizeof(header));
  std::memcpy(buffer + NLMSG_HDRLEN, &message, sizeof(message));
  std::memcpy(buffer + NLMSG_HDRLEN + sizeof(message), &operation, sizeof(operation));
  return ::send(socket, buffer, header.nlmsg_len, 0) == static_cast<ssize_t>(header.nlmsg_len);
}

// An acknowledgement is a message of no event. It has the next `ack` after that of its subscription; `seq`
// counts the messages of a processor (cn_proc_ack and send_msg in drivers/connector/cn_proc.c).
bool IsAcknowledgement(const char* datagram, std::size_t size, std::uint32_t number) {
  cn_msg message{};
  std::uint32_t what = 0;
  if (size < NLMSG_HDRLEN + sizeof(message) + sizeof(what)) return false;
  std::memcpy(&message, datagram + NLMSG_HDRLEN, sizeof(message));
  std::memcpy(&what, datagram + NLMSG_HDRLEN + sizeof(message), sizeof(what));
  return message.id.idx == CN_IDX_PROC && what == 0 && message.ack == number + 1;
}

// Events come in between, and where somebody outside listens too, nothing else does.
bool HearsAcknowledgement(int socket, std::uint32_t number, Clock::time_point end) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0) return false;
    pollfd readable{.fd = socket, .events = POLLIN, .revents = 0};
    if (::poll(&readable, 1, static_cast<int>(left)) <= 0) continue;
    char datagram[256];
    const ssize_t size = ::recv(socket, datagram, sizeof(datagram), MSG_DONTWAIT);
    if (size > 0 && IsAcknowledgement(datagram, static_cast<std::size_t>(size), number)) return true;
  }
}

std::string ExplainError(int error) {
  // Nobody answers there (seen on 6.18), or there is no such protocol.
  if (error == ECONNREFUSED || error == EPROTONOSUPPORT)
    return "the kernel reports process events in the first network namespace alone, and this process is in "
           "another";
  if (error == EPERM || error == EACCES)
    return "listening to process events needs a right; run as root, or grant CAP_NET_ADMIN";
  return std::string("the kernel's proc connector cannot be used: ") + std::strerror(error);
}

}  // namespace

std::string ExplainSilence(std::uint64_t pidNamespace, std::uint64_t userNamespace) {
  const auto isAnother = [](std::uint64_t inode, std::uint64_t first) {
    return inode != 0 && inode != first;
  };
  if (isAnother(pidNamespace, kFirstPidNamespace))
    return "the kernel reports process events in the first PID namespace alone, and this process is in "
           "another";
  if (isAnother(userNamespace, kFirstUserNamespace))
    return "the kernel reports process events in the first user namespace alone, and this process is in "
           "another";
  return "the kernel does not acknowledge the subscription to process events";
}

std::string FindProcConnectorObstacle(std::chrono::milliseconds deadline) {
  static std::atomic<std::uint32_t> s_number{0};
  const std::uint32_t number = static_cast<std::uint32_t>(::getpid()) << 8 | (++s_number & 0xffU);
  const Clock::time_point end = Clock::now() + deadline;
  const qor::UniqueFd socket(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = CN_IDX_PROC;
  if (!socket || ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      !Subscribe(socket.Get(), PROC_CN_MCAST_LISTEN, number))
    return ExplainError(errno);
  const bool hears = HearsAcknowledgement(socket.Get(), number, end);
  // An older kernel counts the listeners, and not their sockets.
  static_cast<void>(Subscribe(socket.Get(), PROC_CN_MCAST_IGNORE, number));
  return hears ? std::string() : ExplainSilence(InodeOf("/proc/self/ns/pid"), InodeOf("/proc/self/ns/user"));
}

}  // namespace host_kit
