#include "host_kit/proc_connector_probe.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "support/rights.h"

namespace {

using host_kit::ExplainSilence;
using host_kit::FindProcConnectorObstacle;

constexpr std::uint64_t kFirstPid = 4026531836;
constexpr std::uint64_t kFirstUser = 4026531837;

TEST(ProcConnectorProbe, WhereEventsComeNothingIsInTheWay) {
  SKIP_IF(test_support::MissingProcConnector());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(FindProcConnectorObstacle(std::chrono::seconds(5)), "");
}

TEST(ProcConnectorProbe, AnotherNetworkNamespaceIsNamed) {
  SKIP_IF(test_support::MissingRight(CAP_SYS_ADMIN, "for a network namespace"));
  std::string obstacle;
  std::thread([&obstacle] {  // the namespace is this thread's alone
    ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << errno;
    obstacle = FindProcConnectorObstacle();
  })
      .join();
  EXPECT_EQ(obstacle,
            "the kernel reports process events in the first network namespace alone, and this process is in "
            "another");
}

TEST(ProcConnectorProbe, SilenceIsExplainedByTheNamespaceThatCausesIt) {
  EXPECT_NE(ExplainSilence(1, kFirstUser).find("PID namespace"), std::string::npos);
  EXPECT_NE(ExplainSilence(1, 1).find("PID namespace"), std::string::npos);
  EXPECT_NE(ExplainSilence(kFirstPid, 1).find("user namespace"), std::string::npos);
  for (const std::uint64_t known : {std::uint64_t{0}, kFirstPid})
    EXPECT_EQ(ExplainSilence(known, 0), "the kernel does not acknowledge the subscription to process events");
}

}  // namespace
