#include "host_kit/process_listener.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "support/actor.h"
#include "support/own_process.h"
#include "support/rights.h"
#include "support/threads.h"

namespace {

using host_kit::Bootstrap;
using host_kit::EventKind;
using host_kit::EventView;
using host_kit::ProcessListener;
using qor::process_manager::non_blocking_type::kKprobes;

class ProcessListenerTest : public testing::Test {
 protected:
  void SetUp() override { SKIP_IF(test_support::MissingProcConnector()); }
  void TearDown() override {
    EXPECT_TRUE(test_support::ThreadsNamed("vornPrcMonPoll").empty()) << "the source still runs";
  }

  host_kit::LoadedModule m_module{PROCESS_MANAGER_MODULE};
};

TEST_F(ProcessListenerTest, EventsComeOnTheModulesWorker) {
  const Bootstrap host(m_module);
  std::atomic<pid_t> worker{0};
  const ProcessListener listener(host, [&worker](const EventView&) { worker = ::gettid(); });
  test_support::RunTrue();
  ASSERT_TRUE(test_support::Eventually([&worker] { return worker != 0; }));
  EXPECT_EQ(test_support::ThreadsNamed("vornPrcMonProc"), std::vector<pid_t>{worker});
}

TEST_F(ProcessListenerTest, TheEndOfAProcessThatBeganEarlierIsReported) {
  test_support::Actor earlier({"wait"});
  const Bootstrap host(m_module);
  std::atomic<bool> ended{false};
  const ProcessListener listener(host, [&](const EventView& event) {
    if (static_cast<pid_t>(event.GetPid()) != earlier.Pid() || event.GetKind() != EventKind::kExit) return;
    EXPECT_TRUE(event.GetImagePath().value_or("").ends_with("/actor"));
    ended = true;
  });
  earlier.GoOn();
  ASSERT_EQ(earlier.Wait(), 0);
  EXPECT_TRUE(test_support::Eventually([&ended] { return ended.load(); }));
}

TEST_F(ProcessListenerTest, WithoutTheEnumerationTheCacheHasNotMetAnEarlierProcess) {
  test_support::Actor earlier({"say", "wait"});
  earlier.HearPid();  // its exec is behind it
  const Bootstrap host(m_module, host_kit::MakeDefaultServices(), {.enumerate = false});
  std::atomic<bool> reported{false};
  std::atomic<std::uint32_t> lastEnd{0};
  const ProcessListener listener(host, [&](const EventView& event) {
    if (static_cast<pid_t>(event.GetPid()) == earlier.Pid()) reported = true;
    if (event.GetKind() == EventKind::kExit && event.GetParentPid() == static_cast<std::uint32_t>(::getpid()))
      lastEnd = event.GetPid();
  });
  earlier.GoOn();
  ASSERT_EQ(earlier.Wait(), 0);
  const auto later = static_cast<std::uint32_t>(test_support::RunTrue());
  ASSERT_TRUE(test_support::Eventually([&] { return lastEnd == later; }));
  EXPECT_FALSE(reported) << "events keep the kernel's order";
}

TEST_F(ProcessListenerTest, AfterItsEndNoEventComesAndAnotherListenerCanBegin) {
  const Bootstrap host(m_module);
  std::atomic<std::uint64_t> first{0};
  {
    const ProcessListener listener(host, [&first](const EventView&) { ++first; });
    test_support::RunTrue();
    ASSERT_TRUE(test_support::Eventually([&first] { return first != 0; }));
  }
  const std::uint64_t before = first;
  std::atomic<std::uint64_t> second{0};
  const ProcessListener listener(host, [&second](const EventView&) { ++second; });
  test_support::RunTrue();
  EXPECT_TRUE(test_support::Eventually([&second] { return second != 0; }));
  EXPECT_EQ(first, before);
}

// This host has no exec listener to offer.
TEST_F(ProcessListenerTest, ASourceThatCannotBeUsedIsAFailureAndLeavesNothing) {
  {
    const Bootstrap host(m_module);
    try {
      const ProcessListener listener(
          host, [](const EventView&) {}, kKprobes);
      FAIL() << "it listens";
    } catch (const host_kit::Failure& failure) {
      EXPECT_TRUE(std::string(failure.what()).starts_with("cannot listen to the kernel's process events ("))
          << failure.what();
    }
  }
  EXPECT_TRUE(m_module.Unload());
}

}  // namespace
