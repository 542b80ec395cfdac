// The launcher is a script, in an "/opt" that only the child sees.
#include "qor_common/restart.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "qor_common/unique_fd.h"
#include "support/child_process.h"
#include "support/fake_services.h"
#include "support/launcher.h"
#include "support/rights.h"

namespace qor {
namespace {

using test_support::RunInChild;
using zym::trace::kCall;
using zym::trace::kFailure;

std::string PrepareOpt() {
  if (const auto missing = test_support::EnterPrivateMounts(); !missing.empty()) return missing;
  return test_support::MountEmpty("/opt");
}

class ProductRestartTest : public testing::Test {
 protected:
  void SetUp() override { SKIP_IF(test_support::MissingMountRights()); }
};

TEST_F(ProductRestartTest, StartsTheLauncherWithNoTieToThisProcess) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              if (const auto missing = test_support::EnterPrivateMounts(); !missing.empty()) return missing;
              test_support::StandInLauncher launcher;
              const auto tracer = zym::CreateObject<test_support::RecordingTracer>();
              const UniqueFd leak(::open("/dev/zero", O_RDONLY));  // not closed by exec alone
              if (ProductRestart(tracer.get()) != zym::ZYM_OK) return "result";
              if (!tracer->Has(kCall, "ProductRestart() <- asynchronous product restart initialized"))
                return "no trace";

              const test_support::LauncherRun run = launcher.WaitForRun();
              if (run.arguments != "/opt/quelmarin/vorn/libexec/launcher 1: --restart")
                return "arguments: " + run.arguments;
              if (run.session != run.pid || run.group != run.pid) return "leads no session";
              for (const auto& [fd, name] : run.descriptors)
                if (fd > 2 || name != "/dev/null") return "descriptor " + std::to_string(fd) + ": " + name;
              if (run.descriptors.size() != 3) return "a standard stream is missing";
              const std::string status =
                  test_support::ReadTextFile("/proc/" + std::to_string(run.pid) + "/status");
              if (status.find("PPid:\t" + std::to_string(::getpid()) + "\n") != std::string::npos)
                return "a child of its starter";
              return "";
            }),
            "");
}

TEST_F(ProductRestartTest, AMissingLauncherIsTracedAndReturned) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              if (const auto missing = PrepareOpt(); !missing.empty()) return missing;
              const auto tracer = zym::CreateObject<test_support::RecordingTracer>();
              if (ProductRestart(tracer.get()) != zym::ZYM_E_NOT_FOUND) return "result";
              if (!tracer->Has(kFailure, "qor_common/restart.cpp:") ||
                  !tracer->Has(kFailure,
                               "(SecureDaemonSpawn(spawnContext)),(ZYM_SUCCEEDED(_result)) failed: result = "
                               "0x8000004c (Not found) can not initialize asynchronous product restart"))
                return tracer->Find("SecureDaemonSpawn");
              return tracer->Has("asynchronous product restart initialized") ? "success is traced too" : "";
            }),
            "");
}

TEST_F(ProductRestartTest, NeedsNoTracer) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              if (const auto missing = PrepareOpt(); !missing.empty()) return missing;
              return ProductRestart(nullptr) == zym::ZYM_E_NOT_FOUND ? "" : "result";
            }),
            "");
}

}  // namespace
}  // namespace qor
