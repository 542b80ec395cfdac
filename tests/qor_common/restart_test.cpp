// The launcher is a script of this test, in an "/opt" that only the child sees.
#include "qor_common/restart.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>

#include "qor_common/unique_fd.h"
#include "support/child_process.h"
#include "support/fake_services.h"

namespace qor {
namespace {

using test_support::RunInChild;
using zym::trace::kCall;
using zym::trace::kFailure;

constexpr const char* kLauncher = "/opt/quelmarin/vorn/libexec/launcher";
constexpr const char* kFacts = "/opt/facts";

std::string PrepareOpt() {
  if (const auto missing = test_support::EnterPrivateMounts(); !missing.empty()) return missing;
  return test_support::MountEmpty("/opt");
}

void InstallLauncher() {
  std::filesystem::create_directories(std::filesystem::path(kLauncher).parent_path());
  test_support::WriteTextFile(kLauncher,
                              "#!/bin/sh\n"
                              "exec >/opt/facts\n"
                              "echo \"$0 $#: $*\"\n"
                              "echo $$ $(cut -d' ' -f5,6 /proc/$$/stat)\n"
                              "ls /proc/$$/fd\n"
                              "echo end\n"
                              "read line </opt/latch\n",
                              0755);
  ::mkfifo(kFacts, 0600);
  ::mkfifo("/opt/latch", 0600);
}

class ProductRestartTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto missing = test_support::MissingMountRights(); !missing.empty()) GTEST_SKIP() << missing;
  }
};

TEST_F(ProductRestartTest, StartsTheLauncherWithNoTieToThisProcess) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              if (const auto missing = PrepareOpt(); !missing.empty()) return missing;
              InstallLauncher();
              const auto tracer = zym::CreateObject<test_support::RecordingTracer>();
              const UniqueFd leak(::open("/dev/zero", O_RDONLY));  // not closed by exec alone
              const UniqueFd facts(::open(kFacts, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
              if (ProductRestart(tracer.get()) != zym::ZYM_OK) return "result";
              if (!tracer->Has(kCall, "ProductRestart() <- asynchronous product restart initialized"))
                return "no trace";

              // Until it opens its end nobody writes, and a read says so at once.
              std::string text;
              while (!text.ends_with("end\n")) text += test_support::ReadSome(facts.Get());
              std::istringstream lines(text);
              std::string line;
              std::getline(lines, line);
              if (line != std::string(kLauncher) + " 1: --restart") return "arguments: " + line;
              int pid = 0;
              int group = 0;
              int session = 0;
              lines >> pid >> group >> session;
              if (session != pid || group != pid) return "leads no session: " + text;
              std::set<std::string> descriptors;
              while (lines >> line && line != "end") descriptors.insert(line);
              descriptors.erase("10");  // a shell keeps its script open beside the three streams
              if (descriptors != std::set<std::string>{"0", "1", "2"}) return "descriptors: " + text;
              const std::string status =
                  test_support::ReadTextFile("/proc/" + std::to_string(pid) + "/status");
              if (status.find("PPid:\t" + std::to_string(::getpid()) + "\n") != std::string::npos)
                return "a child of its starter";
              const UniqueFd latch(::open("/opt/latch", O_WRONLY | O_CLOEXEC));
              return ::write(latch.Get(), "\n", 1) == 1 ? "" : "latch";
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
