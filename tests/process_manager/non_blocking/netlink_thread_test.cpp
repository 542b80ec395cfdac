// The netlink source on the kernel's proc connector: its socket, its thread, and what ends them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "process_manager/interception/filter.h"
#include "process_manager/non_blocking/netlink_fakes.h"
#include "process_manager/non_blocking/netlink_interceptor.h"
#include "qor_common/unique_fd.h"
#include "support/actor.h"
#include "support/rights.h"
#include "support/threads.h"
#include "zym/module_counter.h"

namespace {

using namespace qor::process_manager;
using namespace test_support;
using qor::UniqueFd;
using Strings = std::vector<std::string>;

constexpr std::uint32_t kNetlink = 1;
constexpr std::uint32_t kKprobes = 2;
constexpr const char* kThread = "vornPrcMonPoll";

pid_t RunChild() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  EXPECT_EQ(::waitpid(child, nullptr, 0), child);
  return child;
}

// The descriptors that were opened since `before` and whose name begins with `kind`.
std::vector<int> OpenedSince(const std::map<int, std::string>& before, std::string_view kind) {
  std::vector<int> opened;
  for (const auto& [fd, name] : OpenDescriptors())
    if (!before.contains(fd) && name.starts_with(kind)) opened.push_back(fd);
  return opened;
}

class NetlinkThreadTest : public testing::Test, protected NetlinkHarness {
 protected:
  void SetUp() override {
    SKIP_IF(MissingProcConnector());
    m_parser->everyProcess.emplace();
    m_before = OpenDescriptors();
  }

  void Start() { ASSERT_EQ(m_interceptor->Start(kNetlink), zym::ZYM_OK); }

  int Socket() const { return Only(OpenedSince(m_before, "socket:")); }
  int StopDescriptor() const { return Only(OpenedSince(m_before, "anon_inode:[eventfd]")); }
  static int Only(const std::vector<int>& descriptors) {
    EXPECT_EQ(descriptors.size(), 1U);
    return descriptors.empty() ? -1 : descriptors[0];
  }

  // Puts `other` in the place of `fd`; gives what was there.
  static UniqueFd Replace(int fd, int other) {
    UniqueFd saved(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    EXPECT_EQ(::dup2(other, fd), fd);
    return saved;
  }

  void ExpectEvents() {
    const pid_t child = RunChild();
    EXPECT_TRUE(Eventually([&] { return m_cache->HasSeen("exit", child); }));
    EXPECT_TRUE(m_cache->HasSeen("fork", child));
  }
  void ExpectThread() {
    EXPECT_TRUE(Eventually([] { return ThreadsNamed(kThread).size() == 1; }));
  }
  // The thread has ended, and nothing is open.
  void ExpectStopped() {
    EXPECT_TRUE(ThreadsNamed(kThread).empty());
    EXPECT_EQ(OpenDescriptors(), m_before);
  }
  void ExpectRestart() {
    EXPECT_TRUE(Eventually([this] { return m_host.tracer->Has("asynchronous product restart"); }));
    EXPECT_TRUE(m_host.tracer->Has(800, "unexpected poll thread exit, restart"));
    EXPECT_TRUE(m_host.tracer->Has(300, "can not initialize asynchronous product restart"))
        << "the product isn't installed on this machine";
    EXPECT_TRUE(Eventually([] { return ThreadsNamed(kThread).empty(); }));
  }

  std::map<int, std::string> m_before;
};

TEST_F(NetlinkThreadTest, AStartBringsEventsAndAStopEndsThem) {
  Start();
  ExpectThread();
  ExpectEvents();
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
  ExpectStopped();
  EXPECT_TRUE(m_host.tracer->Has(800, "Received stop event, stopping polling"));
  EXPECT_FALSE(m_host.tracer->Has("unexpected poll thread exit, restart"));
  const std::size_t reports = m_cache->Reports().size();
  RunChild();
  EXPECT_EQ(m_cache->Reports().size(), reports);
}

TEST_F(NetlinkThreadTest, ASecondStartLeavesTheRunningThreadAlone) {
  Start();
  ExpectThread();
  const auto threads = ThreadsNamed(kThread);
  const auto descriptors = OpenDescriptors();
  EXPECT_EQ(m_interceptor->Start(kNetlink), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(800, "netlink nonblocking interceptor is running already"));
  EXPECT_EQ(ThreadsNamed(kThread), threads);
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(m_aggregator->calls, (Strings{"register 8 1"}));
}

TEST_F(NetlinkThreadTest, TheFeatureIsMarkedWhileItRuns) {
  Start();
  EXPECT_EQ(m_aggregator->calls, (Strings{"register 8 1"}));
  m_interceptor->Stop(kNetlink);
  EXPECT_EQ(m_aggregator->calls, (Strings{"register 8 1", "unregister 8 1"}));
}

TEST_F(NetlinkThreadTest, ItCanBeStartedAgain) {
  for (int i = 0; i < 5; ++i) {
    Start();
    ExpectEvents();
    EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
    ExpectStopped();
  }
}

TEST_F(NetlinkThreadTest, TheTableStopsItWithItsLastActiveFilterAndStartsItWithTheNext) {
  class Handler
      : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
   public:
    void OnEvent(ISystemEvent*, std::uint32_t) override {}
  };
  Start();
  non_blocking::Filter filter;
  filter.enabled = true;
  filter.handler = zym::CreateObject<Handler>();
  filter.id = 9;
  ASSERT_EQ(m_interceptor->RegisterFilter(std::move(filter)), zym::ZYM_OK);
  unsigned int id = 9;
  const zym::types::range_t<unsigned int*> ids{&id, &id + 1};
  EXPECT_EQ(m_interceptor->DisableFilters(ids), zym::ZYM_OK);
  ExpectStopped();
  EXPECT_EQ(m_interceptor->EnableFilters(ids), zym::ZYM_OK);
  ExpectEvents();
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->EnableFilters(ids), zym::ZYM_OK);
  ExpectStopped();
}

TEST_F(NetlinkThreadTest, ItsDestructionJoinsTheThread) {
  Start();
  ExpectEvents();
  m_interceptor.Reset();
  ExpectStopped();
  EXPECT_EQ(m_aggregator->calls, (Strings{"register 8 1", "unregister 8 1"}));
}

TEST_F(NetlinkThreadTest, ItStopsInTheMiddleOfAStorm) {
  Start();
  {
    const Actor storm({"storm", "0"});
    EXPECT_TRUE(Eventually([this] { return m_cache->Reports().size() > 100; }));
    EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
  }
  ExpectStopped();
}

// --- starts that fail ---

TEST_F(NetlinkThreadTest, WithoutADescriptorToBeHadItDoesntStart) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit none = limit;
  none.rlim_cur = 0;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const zym::result_t result = m_interceptor->Start(kNetlink | kKprobes);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(result, zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_host.tracer->Has(300, "Cannot initialize netlink connector socket: Too many open files"));
  EXPECT_TRUE(m_host.tracer->Has(300, "Cannot init netlink connector"));
  EXPECT_TRUE(m_host.tracer->Has(
      300, "(StartNetlink()),(ZYM_SUCCEEDED(_result)) failed: result = 0x8000004b (Unspecified error)"));
  EXPECT_TRUE(m_aggregator->calls.empty());
  EXPECT_EQ(m_host.locator->Asked().count(qor::IExecListenerFactory::kIid), 0U) << "kprobes are not tried";
  ExpectStopped();
  Start();
  ExpectEvents();
}

TEST_F(NetlinkThreadTest, ASocketThatCantBeBoundIsClosed) {
  m_interceptor.Reset();
  const auto watched = zym::CreateObject<WatchedTracer>(m_host.tracer);
  watched->trigger = "default netlink socket receive buffer size";
  watched->action = [this] {
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::dup2(null, Socket()), Socket());
    ::close(null);
  };
  m_host.locator->Add(watched, zym::ITracer::kIid);
  m_interceptor = Make();
  EXPECT_EQ(m_interceptor->Start(kNetlink), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_host.tracer->Has(300, " Cannot bind: Socket operation on non-socket"));
  ExpectStopped();
}

TEST_F(NetlinkThreadTest, WithoutAFeatureMarkItStaysHalfStartedUntilAStop) {
  m_host.locator->FailWith(qor::IFeatureTechsAggregator::kIid, zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_interceptor->Start(kNetlink), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(m_host.tracer->Has(300, "NetlinkInterceptor::StartNetlink: "));
  EXPECT_TRUE(ThreadsNamed(kThread).empty());
  EXPECT_GE(Socket(), 0);
  m_host.locator->Add(m_aggregator);
  EXPECT_EQ(m_interceptor->Start(kNetlink), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(800, "netlink nonblocking interceptor is running already"));
  EXPECT_TRUE(ThreadsNamed(kThread).empty());
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
  ExpectStopped();
  Start();
  ExpectEvents();
}

TEST_F(NetlinkThreadTest, AnAggregatorThatRefusesIsAFailureToo) {
  m_aggregator->registerResult = zym::ZYM_E_ACCESS_DENIED;
  EXPECT_EQ(m_interceptor->Start(kNetlink), zym::ZYM_E_ACCESS_DENIED);
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
  EXPECT_EQ(m_aggregator->calls, (Strings{"register 8 1"})) << "what was refused is not taken back";
  ExpectStopped();
}

TEST_F(NetlinkThreadTest, WithoutASubscriptionItStaysHalfStartedUntilAStop) {
  UniqueFd saved;
  const UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  m_before = OpenDescriptors();
  m_aggregator->onRegister = [&] { saved = Replace(Socket(), null.Get()); };
  EXPECT_EQ(m_interceptor->Start(kNetlink), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_host.tracer->Has(300, "Cannot send netlink: Socket operation on non-socket"));
  EXPECT_TRUE(m_host.tracer->Has(300, "(ConfigureNetlinkConnector(true)),(ZYM_SUCCEEDED(_result)) failed: "));
  EXPECT_TRUE(ThreadsNamed(kThread).empty());
  EXPECT_EQ(m_interceptor->Start(kNetlink), zym::ZYM_OK) << "it says that it runs";
  EXPECT_TRUE(ThreadsNamed(kThread).empty());

  // A stop has to leave the group first, which fails while the descriptor is spoilt.
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(
      m_host.tracer->Has(300, "(ConfigureNetlinkConnector(false)),(ZYM_SUCCEEDED(_result)) failed: "));
  int spoilt = -1;
  for (const auto& [fd, name] : OpenDescriptors())
    if (!m_before.contains(fd) && name == "/dev/null") spoilt = fd;
  ASSERT_EQ(::dup2(saved.Get(), spoilt), spoilt);
  saved.Reset();
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
  ExpectStopped();
}

TEST_F(NetlinkThreadTest, WithoutAThreadItStaysHalfStartedUntilAStop) {
  pthread_attr_t usual{};
  ASSERT_EQ(::pthread_getattr_default_np(&usual), 0);
  pthread_attr_t huge{};
  ASSERT_EQ(::pthread_attr_init(&huge), 0);
  ASSERT_EQ(::pthread_attr_setstacksize(&huge, std::size_t{1} << 50), 0);
  ASSERT_EQ(::pthread_setattr_default_np(&huge), 0);
  const zym::result_t result = m_interceptor->Start(kNetlink);
  ASSERT_EQ(::pthread_setattr_default_np(&usual), 0);
  EXPECT_EQ(static_cast<std::uint32_t>(result), 0x8006000bU) << "EAGAIN";
  EXPECT_TRUE(m_host.tracer->Has(
      300,
      "(m_pollThread.Create(&NetlinkInterceptor::PollTask, this)),(ZYM_SUCCEEDED(_result)) failed: result = "
      "0x8006000b Cannot create poll thread"));
  EXPECT_EQ(m_interceptor->Start(kNetlink), zym::ZYM_OK);
  EXPECT_TRUE(ThreadsNamed(kThread).empty());
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
  ExpectStopped();
  Start();
  ExpectEvents();
}

// --- a thread that ends by itself ---

TEST_F(NetlinkThreadTest, ABrokenSocketEndsTheThreadAndRestartsTheProduct) {
  Start();
  ExpectEvents();
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[1]);
  const UniqueFd hungUp(ends[0]);
  const int socket = Socket();
  const UniqueFd saved = Replace(socket, hungUp.Get());
  RunChild();  // poll(2) sleeps on what was there before: an event wakes it
  ExpectRestart();
  EXPECT_TRUE(m_host.tracer->Has(300, ": netlink fd is corrupted"));

  // It counts as running, and a stop works although nobody hears its word.
  ASSERT_EQ(::dup2(saved.Get(), socket), socket);
  EXPECT_EQ(m_interceptor->Start(kNetlink), zym::ZYM_OK);
  EXPECT_TRUE(ThreadsNamed(kThread).empty());
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
  EXPECT_TRUE(ThreadsNamed(kThread).empty());
  Start();
  ExpectEvents();
}

TEST_F(NetlinkThreadTest, ABrokenStopDescriptorEndsTheThreadAndRestartsTheProduct) {
  Start();
  ExpectEvents();
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[1]);
  const UniqueFd hungUp(ends[0]);
  const UniqueFd saved = Replace(StopDescriptor(), hungUp.Get());
  RunChild();
  ExpectRestart();
  EXPECT_TRUE(m_host.tracer->Has(300, ": stop fd is corrupted"));
}

// Leaving the kernel's group fails, so the stop does; the thread runs on until the object goes.
TEST_F(NetlinkThreadTest, ItsDestructionEndsTheThreadAlsoWhenTheGroupCantBeLeft) {
  Start();
  ExpectEvents();
  // A descriptor that is quiet and refuses to send.
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd quiet(ends[0]);
  const UniqueFd writer(ends[1]);
  {
    const UniqueFd saved = Replace(Socket(), quiet.Get());
    EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_E_UNSPECIFIED);
    EXPECT_EQ(ThreadsNamed(kThread).size(), 1U);
  }
  m_interceptor.Reset();
  EXPECT_TRUE(ThreadsNamed(kThread).empty());
  EXPECT_TRUE(m_host.tracer->Has("Received stop event, stopping polling"));
}

// --- loss ---

TEST_F(NetlinkThreadTest, WhatTheKernelDropsIsLostAndTheSourceGoesOn) {
  Gate inCache;
  Gate go;
  m_cache->onReport = [&](const RecordingEventInfoProvider::Report&) {
    inCache.Open();
    go.Wait();
  };
  Start();
  const int small = 1;
  ASSERT_EQ(::setsockopt(Socket(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
  for (int i = 0; i < 100; ++i) RunChild();
  inCache.Wait();
  go.Open();
  EXPECT_TRUE(Eventually([this] {
    return m_host.tracer->Has(300, "Error on recv() from netlink socket: No buffer space available (105)");
  }));
  // The buffer is still small: an event comes through when the thread keeps up with it.
  EXPECT_TRUE(Eventually([this] { return m_cache->HasSeen("exit", RunChild()); }));
  EXPECT_FALSE(m_host.tracer->Has("unexpected poll thread exit, restart"));
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
}

TEST_F(NetlinkThreadTest, AnEventThatTheCacheRefusesDoesntEndTheThread) {
  std::atomic<int> raised{0};
  m_cache->onReport = [&](const RecordingEventInfoProvider::Report&) {
    if (raised++ == 0) throw zym::CheckFailedException("process_cache.cpp", 1);
  };
  Start();
  RunChild();
  EXPECT_TRUE(Eventually([&] { return raised > 0; }));
  ExpectEvents();
  EXPECT_TRUE(m_host.tracer->Has(300, "NetlinkInterceptor::ProcessNetlink: "));
}

// --- threads ---

TEST_F(NetlinkThreadTest, StartsAndStopsOfSeveralThreadsFollowEachOther) {
  {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([this, i] {
        for (int j = 0; j < 50; ++j) {
          EXPECT_EQ(i % 2 == 0 ? m_interceptor->Start(kNetlink) : m_interceptor->Stop(kNetlink), zym::ZYM_OK);
          EXPECT_EQ(i % 2 == 0 ? m_interceptor->Stop() : m_interceptor->Start(), zym::ZYM_OK);
        }
      });
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->Stop(), zym::ZYM_OK);
  ExpectStopped();
  Start();
  ExpectEvents();
}

}  // namespace
