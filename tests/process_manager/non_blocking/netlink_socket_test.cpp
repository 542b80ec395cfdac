#include "process_manager/non_blocking/netlink_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>

#include "process_manager/non_blocking/mnl_receive_buffer.h"
#include "support/fake_services.h"
#include "support/rights.h"

namespace {

using namespace qor::process_manager::non_blocking;

constexpr int kTwoMiB = 0x200000;
constexpr std::uint32_t kFork = 1;

struct Close {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using MnlSocket = std::unique_ptr<mnl_socket, Close>;

MnlSocket RouteSocket() {
  return MnlSocket(mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC));
}

// The descriptor is no socket any more.
void Spoil(int fd) {
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  ASSERT_EQ(::dup2(null, fd), fd);
  ::close(null);
}

class NetlinkSocketTest : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_IF(test_support::MissingProcConnector());
    m_socket = NetlinkSocket::Open(m_tracer.get());
    ASSERT_NE(m_socket, nullptr);
  }

  // The next datagram; waits for it.
  std::array<std::uint32_t, 19> Next() {
    pollfd readable{.fd = m_socket->GetDescriptor(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&readable, 1, 30'000), 1);
    std::array<std::uint32_t, 19> datagram{};
    EXPECT_EQ(m_socket->Receive(datagram.data(), sizeof(datagram)), 76);
    return datagram;
  }

  const zym::intrusive_ptr<test_support::RecordingTracer> m_tracer =
      zym::CreateObject<test_support::RecordingTracer>();
  std::unique_ptr<NetlinkSocket> m_socket;
};

TEST_F(NetlinkSocketTest, ItsDescriptorNeverWaitsAndIsClosedAtAnExec) {
  const int fd = m_socket->GetDescriptor();
  EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  char byte = 0;
  EXPECT_EQ(m_socket->Receive(&byte, 1), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(NetlinkSocketTest, ItIsBoundToTheProcessGroupOfTheConnector) {
  sockaddr_nl address{};
  socklen_t length = sizeof(address);
  ASSERT_EQ(::getsockname(m_socket->GetDescriptor(), reinterpret_cast<sockaddr*>(&address), &length), 0);
  EXPECT_EQ(address.nl_groups, 1U);
  EXPECT_NE(address.nl_pid, 0U) << "the kernel chose a port";
}

TEST_F(NetlinkSocketTest, ItsReceiveBufferTakesABurst) {
  int size = 0;
  socklen_t length = sizeof(size);
  ASSERT_EQ(::getsockopt(m_socket->GetDescriptor(), SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
  EXPECT_GE(size, kTwoMiB);
  EXPECT_TRUE(m_tracer->Has(800, "default netlink socket receive buffer size: "));
  EXPECT_TRUE(m_tracer->Has(800, "new netlink socket receive buffer size: 2097152"));
}

TEST_F(NetlinkSocketTest, TheSubscriptionBringsForks) {
  ASSERT_EQ(m_socket->Configure(m_tracer.get(), true), zym::ZYM_OK);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  for (;;) {
    const auto datagram = Next();
    const bool isOurFork = datagram[9] == kFork && datagram[15] == static_cast<std::uint32_t>(child);
    if (!isOurFork) continue;
    EXPECT_EQ(datagram[14], static_cast<std::uint32_t>(::getpid()));
    break;
  }
}

TEST_F(NetlinkSocketTest, LeavingTheGroupEndsTheEvents) {
  ASSERT_EQ(m_socket->Configure(m_tracer.get(), true), zym::ZYM_OK);
  ASSERT_EQ(m_socket->Configure(m_tracer.get(), false), zym::ZYM_OK);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  std::array<std::uint32_t, 19> datagram{};
  while (m_socket->Receive(datagram.data(), sizeof(datagram)) > 0)
    EXPECT_FALSE(datagram[9] == kFork && datagram[15] == static_cast<std::uint32_t>(child));
}

TEST_F(NetlinkSocketTest, AFailedSendIsTracedWithItsReason) {
  Spoil(m_socket->GetDescriptor());
  EXPECT_EQ(m_socket->Configure(m_tracer.get(), false), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer->Has(300, "Cannot send netlink: Socket operation on non-socket"));
}

TEST_F(NetlinkSocketTest, AMessageThatIsCutIsLostWithAReason) {
  ASSERT_EQ(m_socket->Configure(m_tracer.get(), true), zym::ZYM_OK);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  pollfd readable{.fd = m_socket->GetDescriptor(), .events = POLLIN, .revents = 0};
  ASSERT_EQ(::poll(&readable, 1, 30'000), 1);
  char few[8];
  EXPECT_EQ(m_socket->Receive(few, sizeof(few)), -1);
  EXPECT_EQ(errno, ENOSPC);
}

// --- the receive buffer ---

TEST(MnlReceiveBuffer, IsReadAsTheKernelKeepsIt) {
  const MnlSocket socket = RouteSocket();
  ASSERT_NE(socket, nullptr);
  ASSERT_EQ(mnl_socket_set_rcv_buf_size(socket.get(), 100'000), 0);
  EXPECT_EQ(mnl_socket_get_rcv_buf_size(socket.get()), 200'000) << "twice of what was asked for, socket(7)";
}

TEST(MnlReceiveBuffer, CanBeLargerThanTheSystemsLimitWithTheRight) {
  SKIP_IF(test_support::MissingRight(CAP_NET_ADMIN, "for SO_RCVBUFFORCE"));
  const MnlSocket socket = RouteSocket();
  ASSERT_EQ(mnl_socket_set_rcv_buf_size(socket.get(), 64 << 20), 0);
  EXPECT_EQ(mnl_socket_get_rcv_buf_size(socket.get()), 128 << 20);
}

TEST(MnlReceiveBuffer, OfSomethingElseIsAnError) {
  const MnlSocket socket = RouteSocket();
  Spoil(mnl_socket_get_fd(socket.get()));
  EXPECT_EQ(mnl_socket_get_rcv_buf_size(socket.get()), -1);
  EXPECT_EQ(errno, ENOTSOCK);
  EXPECT_EQ(mnl_socket_set_rcv_buf_size(socket.get(), kTwoMiB), -1);
  EXPECT_EQ(errno, ENOTSOCK);
}

TEST(MnlReceiveBuffer, OneThatIsLargeEnoughStays) {
  SKIP_IF(test_support::MissingRight(CAP_NET_ADMIN, "for SO_RCVBUFFORCE"));
  const auto tracer = zym::CreateObject<test_support::RecordingTracer>();
  const MnlSocket socket = RouteSocket();
  // As the kernel keeps it: exactly 2 MiB, and more.
  for (const int size : {kTwoMiB, 3 * kTwoMiB}) {
    ASSERT_EQ(mnl_socket_set_rcv_buf_size(socket.get(), size / 2), 0);
    NetlinkSocket::WidenReceiveBuffer(tracer.get(), socket.get());
    EXPECT_EQ(mnl_socket_get_rcv_buf_size(socket.get()), size);
    EXPECT_TRUE(tracer->Has(800, "default netlink socket receive buffer size: " + std::to_string(size)));
  }
  EXPECT_FALSE(tracer->Has("new netlink socket receive buffer size: "));
}

TEST(MnlReceiveBuffer, OneThatIsTooSmallGrows) {
  SKIP_IF(test_support::MissingRight(CAP_NET_ADMIN, "for SO_RCVBUFFORCE"));
  const auto tracer = zym::CreateObject<test_support::RecordingTracer>();
  const MnlSocket socket = RouteSocket();
  ASSERT_EQ(mnl_socket_set_rcv_buf_size(socket.get(), kTwoMiB / 2 - 1), 0);
  NetlinkSocket::WidenReceiveBuffer(tracer.get(), socket.get());
  EXPECT_EQ(mnl_socket_get_rcv_buf_size(socket.get()), 2 * kTwoMiB);
  EXPECT_TRUE(tracer->Has(800, "new netlink socket receive buffer size: 2097152"));
}

TEST(MnlReceiveBuffer, ThatItCantGrowIsPassedOverWithoutAWord) {
  const auto tracer = zym::CreateObject<test_support::RecordingTracer>();
  const MnlSocket socket = RouteSocket();
  Spoil(mnl_socket_get_fd(socket.get()));
  NetlinkSocket::WidenReceiveBuffer(tracer.get(), socket.get());
  EXPECT_TRUE(tracer->Records().empty());
}

}  // namespace
