#include "host_kit/loss_monitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "host_kit/process_listener.h"
#include "support/actor.h"
#include "support/forwarding_parser.h"
#include "support/rights.h"
#include "support/threads.h"

namespace {

using host_kit::Bootstrap;
using host_kit::LossMonitor;
using host_kit::ProcessListener;

class LossMonitorTest : public testing::Test {
 protected:
  void SetUp() override { SKIP_IF(test_support::MissingProcConnector()); }

  host_kit::LoadedModule m_module{PROCESS_MANAGER_MODULE};
};

TEST_F(LossMonitorTest, TheSourceReadsWhileItIsOn) {
  EXPECT_FALSE(LossMonitor::SourceReads());
  {
    const Bootstrap host(m_module, host_kit::MakeDefaultServices(), {.enumerate = false});
    const ProcessListener listener(host, [](const host_kit::EventView&) {});
    // The thread names itself when it begins.
    EXPECT_TRUE(test_support::Eventually([] { return LossMonitor::SourceReads(); }));
  }
  EXPECT_TRUE(test_support::Eventually([] { return !LossMonitor::SourceReads(); }));
}

// The poll thread stands still at its first read of a process, and the socket's buffer overflows.
TEST_F(LossMonitorTest, WhatTheKernelDropsIsCountedOnce) {
  auto services = host_kit::MakeDefaultServices();
  const Bootstrap host(m_module, services, {.enumerate = false});
  test_support::Gate gate;
  std::atomic<bool> reads{false};
  const auto parser = zym::CreateObject<test_support::ForwardingParser>(host.GetParser());
  parser->onGetStat = [&](qor::PidType pid, qor::procfs::Stat& stat) {
    reads = true;
    gate.Wait();
    return host.GetParser()->GetStat(pid, stat);
  };
  services->Add<qor::procfs::IParser>(parser);
  LossMonitor monitor;
  {
    const ProcessListener listener(host, [](const host_kit::EventView&) {});
    EXPECT_EQ(monitor.TakeDropped(), 0U);
    test_support::RunTrue();
    ASSERT_TRUE(test_support::Eventually([&reads] { return reads.load(); }));
    std::uint64_t dropped = 0;
    for (int i = 0; i < 40 && dropped == 0; ++i) {
      test_support::Actor storm({"storm", "500"});
      ASSERT_EQ(storm.Wait(), 0);
      dropped = monitor.TakeDropped();
    }
    gate.Open();
    EXPECT_GT(dropped, 0U);
  }
  EXPECT_EQ(monitor.TakeDropped(), 0U) << "the socket is closed";
  services->Add<qor::procfs::IParser>(host.GetParser());
}

}  // namespace
