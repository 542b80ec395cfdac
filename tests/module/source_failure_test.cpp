// What becomes of the source of process events when its descriptors break under it, or the kernel drops
// events: done to the loaded module from outside.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "module/event_fixture.h"
#include "support/launcher.h"
#include "support/private_mounts.h"
#include "support/rights.h"
#include "support/watched_tracer.h"

namespace {

using namespace test_support;
using qor::UniqueFd;

class SourceFixture : public EventFixture {
 protected:
  void SetUp() override {
    const auto tracer = m_host.host.tracer;
    m_watched = zym::CreateObject<WatchedTracer>(tracer);
    m_host.host.locator->Add(m_watched, zym::ITracer::kIid);
    EventFixture::SetUp();
  }

  void EnableAndFindDescriptors() {
    m_before = OpenDescriptors();
    Enable();
    m_socket = Opened("socket:");
    m_stop = Opened("anon_inode:[eventfd]");
  }
  // What the source has opened of a kind.
  int Opened(const char* kind) const {
    std::vector<int> opened;
    for (const auto& [fd, name] : OpenDescriptors())
      if (!m_before.contains(fd) && name.starts_with(kind)) opened.push_back(fd);
    EXPECT_EQ(opened.size(), 1U) << kind;
    return opened.empty() ? -1 : opened[0];
  }

  bool Traced(std::uint32_t level, const char* text) const { return m_host.host.tracer->Has(level, text); }
  bool WaitForTrace(std::uint32_t level, const char* text) const {
    return Eventually([&] { return Traced(level, text); });
  }
  void ExpectEvents() const {
    const pid_t pid = RunTrue();
    EXPECT_EQ(Types(LifeOf(pid)), kForkAndExec);
  }

  // Nobody has to hear the word of the notifier.
  void ExpectAStopAndAStart() {
    EXPECT_EQ(Disable(), zym::ZYM_OK);
    EXPECT_FALSE(Traced(300, "(ConfigureNetlinkConnector(false))"));
    EXPECT_EQ(OpenDescriptors(), m_before);
    Enable();
    ExpectEvents();
    EXPECT_EQ(Disable(), zym::ZYM_OK);
    EXPECT_TRUE(PollThreadIsGone());
    EXPECT_EQ(OpenDescriptors(), m_before);
  }

  zym::intrusive_ptr<WatchedTracer> m_watched;
  std::map<int, std::string> m_before;
  int m_socket = -1;
  int m_stop = -1;
};

// --- the poll loop ends by itself --------------------------------------------------------------------------

enum class Break { kHungUp, kFailed, kClosed };

// Spoils a descriptor so that poll(2) tells POLLHUP, POLLERR or POLLNVAL for it.
void Spoil(int fd, Break how) {
  if (how == Break::kClosed) {
    // By a direct system call: the thread sanitizer would rightly call it a race with the thread that reads.
    ASSERT_EQ(::syscall(SYS_close, fd), 0);
    return;
  }
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd read(ends[0]);
  const UniqueFd write(ends[1]);
  ASSERT_EQ(::dup3((how == Break::kHungUp ? read : write).Get(), fd, O_CLOEXEC), fd);
}

bool IsAncestorOfThisProcess(pid_t wanted) {
  for (pid_t pid = ::getppid(); pid != 0;) {
    if (pid == wanted) return true;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    pid = 0;
    for (std::string word; status >> word;)
      if (word == "PPid:") status >> pid;
  }
  return false;
}

class ModuleRestart : public SourceFixture {
 protected:
  void SetUp() override {
    SKIP_IF(MissingMountRights());
    SourceFixture::SetUp();
  }

  // The launcher runs, as a daemon that has nothing of this process.
  void ExpectLauncher(StandInLauncher& launcher) const {
    EXPECT_TRUE(WaitForTrace(800, "asynchronous product restart initialized"));
    EXPECT_TRUE(Traced(800, "unexpected poll thread exit, restart"));
    const LauncherRun run = launcher.WaitForRun();
    EXPECT_EQ(run.arguments, std::string(StandInLauncher::kPath) + " 1: --restart");
    EXPECT_EQ(run.session, run.pid) << "leads a session";
    EXPECT_EQ(run.group, run.pid);
    EXPECT_EQ(run.descriptors,
              (std::map<int, std::string>{{0, "/dev/null"}, {1, "/dev/null"}, {2, "/dev/null"}}));
    EXPECT_NE(run.session, ::getsid(0));
    pid_t parent = 0;
    std::ifstream status("/proc/" + std::to_string(run.pid) + "/status");
    for (std::string word; status >> word;)
      if (word == "PPid:") status >> parent;
    EXPECT_TRUE(parent == 1 || IsAncestorOfThisProcess(parent)) << parent << ": init, or a subreaper";
  }
};

struct Case {
  const char* name;
  bool isSocket;
  Break how;

  friend std::ostream& operator<<(std::ostream& out, const Case& value) { return out << value.name; }
};

class ModuleRestartByABrokenDescriptor : public ModuleRestart, public testing::WithParamInterface<Case> {};

TEST_P(ModuleRestartByABrokenDescriptor, RunsTheLauncherOnceAndLeavesASourceThatCanBeStopped) {
  InPrivateMounts([this] {
    StandInLauncher launcher;
    EnableAndFindDescriptors();
    ExpectEvents();
    const int broken = GetParam().isSocket ? m_socket : m_stop;
    const char* const reason = GetParam().isSocket ? ": netlink fd is corrupted" : ": stop fd is corrupted";

    UniqueFd saved(::fcntl(broken, F_DUPFD_CLOEXEC, 0));
    Spoil(broken, GetParam().how);
    // poll(2) sleeps on what was there before: an event wakes it. Until the number is taken again nothing may
    // be opened here.
    RunTrue();
    EXPECT_TRUE(WaitForTrace(300, reason));
    ASSERT_EQ(::dup3(saved.Get(), broken, O_CLOEXEC), broken);
    saved.Reset();
    ExpectLauncher(launcher);

    // The thread has ended, and nothing begins it anew but a stop.
    EXPECT_TRUE(PollThreadIsGone());
    Enable();
    EXPECT_TRUE(Traced(800, "netlink nonblocking interceptor is running already"));
    EXPECT_TRUE(PollThreadIsGone());
    ExpectAStopAndAStart();
  });
}

INSTANTIATE_TEST_SUITE_P(
    Each, ModuleRestartByABrokenDescriptor,
    testing::Values(Case{"SocketHungUp", true, Break::kHungUp}, Case{"SocketFailed", true, Break::kFailed},
                    Case{"SocketClosed", true, Break::kClosed}, Case{"StopHungUp", false, Break::kHungUp},
                    Case{"StopFailed", false, Break::kFailed}, Case{"StopClosed", false, Break::kClosed}),
    [](const auto& each) { return each.param.name; });

// poll(2) refuses more descriptors than the process may open.
TEST_F(ModuleRestart, APollThatFailsRunsTheLauncher) {
  InPrivateMounts([this] {
    rlimit usual{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
    // What comes behind the failure is done with the usual limit, which the launcher inherits.
    m_watched->trigger = ": poll error: ";
    m_watched->action = [&] { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0); };
    StandInLauncher launcher;
    EnableAndFindDescriptors();
    {
      Actor actor({"wait"});
      WaitForImage(actor.Pid(), Actor::Path());
      rlimit few = usual;
      few.rlim_cur = 1;
      ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
      actor.GoOn();  // its end wakes the thread, which polls anew then
      EXPECT_TRUE(WaitForTrace(300, ": poll error: Invalid argument"));
      EXPECT_EQ(actor.Wait(), 0);
    }
    EXPECT_TRUE(Eventually([&] {
      rlimit now{};
      return ::getrlimit(RLIMIT_NOFILE, &now) == 0 && now.rlim_cur == usual.rlim_cur;
    }));
    ExpectLauncher(launcher);
    EXPECT_TRUE(PollThreadIsGone());
    ExpectAStopAndAStart();
  });
}

// With its socket spoilt for good the source can't leave the kernel's group: a stop says so and keeps what
// there is, until the object goes.
TEST_F(ModuleRestart, ASocketThatStaysBrokenIsGivenUpWithTheObject) {
  InPrivateMounts([this] {
    StandInLauncher launcher;
    EnableAndFindDescriptors();
    ExpectEvents();
    Spoil(m_socket, Break::kHungUp);
    RunTrue();
    ExpectLauncher(launcher);
    EXPECT_EQ(Disable(), zym::ZYM_OK) << "a host could do nothing about it";
    EXPECT_TRUE(Traced(300, "Cannot send netlink: Socket operation on non-socket"));
    m_interceptor.Reset();
    m_control.Reset();
    EXPECT_TRUE(PollThreadIsGone());
    for (const auto& [fd, name] : OpenDescriptors()) EXPECT_TRUE(m_before.contains(fd)) << fd << " " << name;
  });
}

TEST_F(ModuleRestart, WithoutALauncherTheSourceSaysSoAndCanBeStopped) {
  InPrivateMounts([this] {
    ASSERT_EQ(MountEmpty("/opt"), "");
    EnableAndFindDescriptors();
    UniqueFd saved(::fcntl(m_stop, F_DUPFD_CLOEXEC, 0));
    Spoil(m_stop, Break::kHungUp);
    RunTrue();
    EXPECT_TRUE(WaitForTrace(300, "can not initialize asynchronous product restart"));
    EXPECT_TRUE(PollThreadIsGone());
    ASSERT_EQ(::dup3(saved.Get(), m_stop, O_CLOEXEC), m_stop);
    saved.Reset();
    ExpectAStopAndAStart();
  });
}

TEST_F(ModuleRestart, AnOrderlyStopRestartsNothing) {
  InPrivateMounts([this] {
    const StandInLauncher launcher;
    EnableAndFindDescriptors();
    ExpectEvents();
    EXPECT_EQ(Disable(), zym::ZYM_OK);
    EXPECT_TRUE(PollThreadIsGone());
    EXPECT_TRUE(Traced(800, "Received stop event, stopping polling"));
    EXPECT_FALSE(m_host.host.tracer->Has("product restart"));
  });
}

// --- the kernel drops events -------------------------------------------------------------------------------

class ModuleOverflow : public SourceFixture {};

TEST_F(ModuleOverflow, WhatTheKernelDropsIsTracedAndTheSourceGoesOn) {
  Gate reading;
  Gate go;
  m_watched->trigger = "Parse: fork: ";
  m_watched->action = [&] {
    reading.Open();
    go.Wait();
  };
  EnableAndFindDescriptors();
  std::vector<pid_t> threads;
  EXPECT_TRUE(Eventually([&] {
    threads = ThreadsNamed(kPollThread);
    return threads.size() == 1;
  }));
  int usual = 0;
  socklen_t length = sizeof(usual);
  ASSERT_EQ(::getsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &usual, &length), 0);
  EXPECT_GE(usual, 2 << 20);
  const int small = 1;  // the kernel makes it its smallest buffer, of a handful of datagrams
  ASSERT_EQ(::setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
  std::vector<pid_t> pids;
  for (int i = 0; i < 50; ++i) pids.push_back(RunTrue());
  reading.Wait();
  const int large = usual / 2;  // the kernel doubles it, socket(7)
  ASSERT_EQ(::setsockopt(m_socket, SOL_SOCKET, SO_RCVBUFFORCE, &large, sizeof(large)), 0);
  go.Open();

  EXPECT_TRUE(WaitForTrace(300, "Error on recv() from netlink socket: No buffer space available (105)"));
  // The kernel brings nothing until what it has kept was read.
  std::set<std::uint32_t> markers;
  EXPECT_TRUE(Eventually([&] {
    markers.insert(static_cast<std::uint32_t>(RunTrue()));
    for (const SeenEvent& event : m_handler->Events())
      if (markers.contains(event.pid)) return true;
    return false;
  }));
  ExpectEvents();
  EXPECT_EQ(ThreadsNamed(kPollThread), threads) << "the same thread goes on";
  EXPECT_FALSE(Traced(300, "netlink fd is corrupted"));
  std::size_t seen = 0;
  for (const pid_t pid : pids) seen += !LifeOf(pid).empty() ? 1 : 0;
  EXPECT_LT(seen, pids.size()) << "nobody brings back what was dropped";
  EXPECT_EQ(Disable(), zym::ZYM_OK);
}

}  // namespace
