#include "process_manager/non_blocking/poll_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <deque>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "process_manager/non_blocking/netlink_socket.h"
#include "qor_common/descriptor_notifier.h"
#include "qor_common/unique_fd.h"
#include "support/fake_services.h"
#include "support/rights.h"

namespace {

using namespace qor::process_manager::non_blocking;
using qor::UniqueFd;

// A socket pair: what is sent on one end is a datagram of the other. Before those come the answers that a
// test has laid out.
class CannedSource final : public IDatagramSource {
 public:
  struct Answer {
    std::int64_t size;
    int error;
  };

  CannedSource() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    m_receiver.Reset(ends[0]);
    m_sender.Reset(ends[1]);
  }

  [[nodiscard]] int GetDescriptor() const override { return m_receiver.Get(); }
  std::int64_t Receive(void* buffer, std::size_t size) override {
    ++receives;
    if (!answers.empty()) {
      const Answer answer = answers.front();
      answers.pop_front();
      errno = answer.error;
      return answer.size;
    }
    return ::recv(m_receiver.Get(), buffer, size, 0);
  }

  void Send(std::string_view text) {
    EXPECT_EQ(::send(m_sender.Get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  }
  // Puts something else in the place of the descriptor that is polled.
  void Replace(int fd) { EXPECT_GE(::dup2(fd, m_receiver.Get()), 0); }

  std::deque<Answer> answers;
  int receives = 0;

 private:
  UniqueFd m_receiver;
  UniqueFd m_sender;
};

// A pipe of which one end is gone.
UniqueFd ReadEndWithoutWriter() {
  int ends[2];
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[1]);
  return UniqueFd(ends[0]);
}
UniqueFd WriteEndWithoutReader() {
  int ends[2];
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[0]);
  return UniqueFd(ends[1]);
}
int ClosedDescriptor() {
  const int fd = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 500);
  ::close(fd);
  return fd;
}

class PollLoopTest : public testing::Test {
 protected:
  // The loop reads; the datagram "stop" stops it.
  zym::result_t Run(int stopDescriptor) {
    PollLoop loop(m_tracer.get(), stopDescriptor, m_source, [this](const void* buffer, std::uint64_t size) {
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer) % 8, 0U);
      m_seen.emplace_back(static_cast<const char*>(buffer), size);
      if (m_seen.back() == "stop") {
        EXPECT_EQ(m_stop.Notify(), zym::ZYM_OK);
      }
    });
    return loop.Run();
  }
  zym::result_t Run() { return Run(m_stop.GetDescriptor()); }

  const zym::intrusive_ptr<test_support::RecordingTracer> m_tracer =
      zym::CreateObject<test_support::RecordingTracer>();
  qor::DescriptorNotifier m_stop;
  CannedSource m_source;
  std::vector<std::string> m_seen;
};

TEST_F(PollLoopTest, AStopEndsItInOrder) {
  ASSERT_EQ(m_stop.Notify(), zym::ZYM_OK);
  EXPECT_EQ(Run(), zym::ZYM_OK);
  EXPECT_TRUE(m_tracer->Has(800, "Received stop event, stopping polling"));
}

TEST_F(PollLoopTest, AStopWinsOverDatagramsThatWait) {
  m_source.Send("waiting");
  ASSERT_EQ(m_stop.Notify(), zym::ZYM_OK);
  EXPECT_EQ(Run(), zym::ZYM_OK);
  EXPECT_EQ(m_source.receives, 0);
}

TEST_F(PollLoopTest, ReadsUntilThereIsNothingMoreThenSleeps) {
  m_source.Send("one");
  m_source.Send("two");
  m_source.Send("stop");
  m_source.Send("behind");
  EXPECT_EQ(Run(), zym::ZYM_OK);
  EXPECT_EQ(m_seen, (std::vector<std::string>{"one", "two", "stop", "behind"}));
  EXPECT_EQ(m_source.receives, 5) << "the fifth one said EAGAIN";
  EXPECT_FALSE(m_tracer->Has("Error on recv()")) << "EAGAIN is no error";
}

TEST_F(PollLoopTest, AnEmptyDatagramEndsTheRead) {
  m_source.answers = {{0, 0}};
  m_source.Send("stop");
  EXPECT_EQ(Run(), zym::ZYM_OK);
  EXPECT_EQ(m_seen.size(), 1U) << "the next wake-up reads on";
}

TEST_F(PollLoopTest, AnInterruptedReadIsRepeated) {
  m_source.answers = {{-1, EINTR}, {-1, EINTR}};
  m_source.Send("stop");
  EXPECT_EQ(Run(), zym::ZYM_OK);
  EXPECT_EQ(m_seen, std::vector<std::string>{"stop"});
  EXPECT_FALSE(m_tracer->Has("Error on recv()"));
}

TEST_F(PollLoopTest, AnOverflowIsTracedAndSurvived) {
  m_source.answers = {{-1, ENOBUFS}};
  m_source.Send("stop");
  EXPECT_EQ(Run(), zym::ZYM_OK);
  EXPECT_TRUE(m_tracer->Has(300, "Error on recv() from netlink socket: No buffer space available (105)"));
  EXPECT_EQ(m_seen, std::vector<std::string>{"stop"}) << "what comes after the gap is read";
}

TEST_F(PollLoopTest, AFailedReadSaysSoToItsCaller) {
  m_source.answers = {{-1, EIO}};
  PollLoop loop(m_tracer.get(), m_stop.GetDescriptor(), m_source, [](const void*, std::uint64_t) {});
  EXPECT_EQ(loop.ReadNetlink(), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer->Has(300, "Error on recv() from netlink socket: Input/output error (5)"));
  EXPECT_EQ(loop.ReadNetlink(), zym::ZYM_OK) << "dry";
}

TEST_F(PollLoopTest, ADatagramIsReadUpToItsLimit) {
  const std::string longOne(PollLoop::kMaxMessageSize + 100, 'x');
  m_source.Send(longOne);
  m_source.Send("stop");
  EXPECT_EQ(Run(), zym::ZYM_OK);
  ASSERT_EQ(m_seen.size(), 2U);
  EXPECT_EQ(m_seen[0].size(), PollLoop::kMaxMessageSize);
}

TEST_F(PollLoopTest, AClosedStopDescriptorIsCorrupted) {
  EXPECT_EQ(Run(ClosedDescriptor()), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer->Has(300,
                            "(!(stop.revents & kBroken)),(bool) failed: result = false : stop fd is "
                            "corrupted"));
}

TEST_F(PollLoopTest, AStopDescriptorThatHangsUpIsCorrupted) {
  EXPECT_EQ(Run(ReadEndWithoutWriter().Get()), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer->Has(300, ": stop fd is corrupted"));
}

TEST_F(PollLoopTest, AStopDescriptorWithAnErrorIsCorrupted) {
  EXPECT_EQ(Run(WriteEndWithoutReader().Get()), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer->Has(300, ": stop fd is corrupted"));
}

TEST_F(PollLoopTest, ACorruptedStopDescriptorIsSeenBeforeDatagrams) {
  m_source.Send("waiting");
  EXPECT_EQ(Run(ClosedDescriptor()), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(m_source.receives, 0);
}

TEST_F(PollLoopTest, ASourceThatHangsUpIsCorrupted) {
  m_source.Replace(ReadEndWithoutWriter().Get());
  EXPECT_EQ(Run(), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer->Has(300, ": netlink fd is corrupted"));
}

TEST_F(PollLoopTest, ASourceWithAnErrorIsCorrupted) {
  m_source.Replace(WriteEndWithoutReader().Get());
  EXPECT_EQ(Run(), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer->Has(300, ": netlink fd is corrupted"));
}

class ClosedSource final : public IDatagramSource {
 public:
  [[nodiscard]] int GetDescriptor() const override { return ClosedDescriptor(); }
  std::int64_t Receive(void*, std::size_t) override {
    ADD_FAILURE() << "nothing was readable";
    return 0;
  }
};

TEST_F(PollLoopTest, AClosedSourceIsCorrupted) {
  ClosedSource source;
  PollLoop loop(m_tracer.get(), m_stop.GetDescriptor(), source, [](const void*, std::uint64_t) {});
  EXPECT_EQ(loop.Run(), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer->Has(300, ": netlink fd is corrupted"));
}

#if !defined(__SANITIZE_ADDRESS__)
// poll(2) refuses more descriptors than the process may have open. Not with the undefined-behaviour
// sanitizer, whose check of every member call opens a pipe.
TEST_F(PollLoopTest, AFailedPollIsTracedAndEndsIt) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit low = limit;
  low.rlim_cur = 1;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  const zym::result_t result = Run();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(result, zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer->Has(300, "(nfds > 0),(bool) failed: result = false : poll error: Invalid argument"));
}
#endif

// Waits until a thread of this process sleeps in poll(2).
void WaitUntilInPoll(pid_t tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/syscall";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  std::string call;
  while (call != std::to_string(SYS_poll)) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "last seen in: " << call;
    std::this_thread::yield();
    std::ifstream(path) >> call;
  }
}

TEST_F(PollLoopTest, AnInterruptedPollIsRepeated) {
  static std::atomic<int> handled{0};
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) { ++handled; };
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
  std::atomic<pid_t> tid{0};
  zym::result_t result = zym::ZYM_E_UNEXPECTED;
  std::thread thread([&] {
    tid = ::gettid();
    result = Run();
  });
  while (tid == 0) std::this_thread::yield();
  for (int i = 1; i <= 3; ++i) {
    WaitUntilInPoll(tid);
    ::pthread_kill(thread.native_handle(), SIGUSR1);
    while (handled < i) std::this_thread::yield();
  }
  m_source.Send("stop");
  thread.join();
  EXPECT_EQ(result, zym::ZYM_OK);
  EXPECT_EQ(m_seen, std::vector<std::string>{"stop"});
  ASSERT_EQ(::sigaction(SIGUSR1, &before, nullptr), 0);
}

TEST_F(PollLoopTest, WhatTheProcessingRaisesEndsIt) {
  m_source.Send("one");
  PollLoop loop(m_tracer.get(), m_stop.GetDescriptor(), m_source,
                [](const void*, std::uint64_t) { throw std::bad_alloc(); });
  EXPECT_THROW(loop.Run(), std::bad_alloc);
}

// The kernel drops datagrams while the loop isn't reading: poll(2) then shows an error on a socket that is as
// good as before.
TEST_F(PollLoopTest, ARealOverflowThatPollSeesFirstIsSurvived) {
  SKIP_IF(test_support::MissingProcConnector());
  const std::unique_ptr<NetlinkSocket> socket = NetlinkSocket::Open(m_tracer.get());
  ASSERT_NE(socket, nullptr);
  const int small = 1;  // the kernel makes it its smallest buffer, of a handful of datagrams
  ASSERT_EQ(::setsockopt(socket->GetDescriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
  ASSERT_EQ(socket->Configure(m_tracer.get(), true), zym::ZYM_OK);
  pollfd overflow{.fd = socket->GetDescriptor(), .events = POLLIN, .revents = 0};
  for (int i = 0; i < 1000 && (overflow.revents & POLLERR) == 0; ++i) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    ASSERT_EQ(::poll(&overflow, 1, 0), 1);
  }
  ASSERT_NE(overflow.revents & POLLERR, 0) << "the buffer never overflowed";

  int seen = 0;
  PollLoop loop(m_tracer.get(), m_stop.GetDescriptor(), *socket, [&](const void*, std::uint64_t size) {
    EXPECT_EQ(size, 76U);
    if (++seen == 1) {
      EXPECT_EQ(m_stop.Notify(), zym::ZYM_OK);
    }
  });
  EXPECT_EQ(loop.Run(), zym::ZYM_OK);
  EXPECT_GT(seen, 0);
  EXPECT_TRUE(m_tracer->Has(300, "Error on recv() from netlink socket: No buffer space available (105)"));
  EXPECT_FALSE(m_tracer->Has("netlink fd is corrupted"));
}

}  // namespace
