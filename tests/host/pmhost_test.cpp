// pmhost as a person and a script use it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/syscall.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "host/run_pmhost.h"
#include "support/actor.h"
#include "support/child.h"
#include "support/temp_directory.h"
#include "support/threads.h"

namespace {

using host_tests::Finished;
using host_tests::Pmhost;
using rapidjson::Document;
using test_support::Child;
using test_support::Eventually;

// A thread of the process sleeps in a write(2) to standard output: /proc/<pid>/syscall in proc(5), which
// tells the call of a thread that doesn't run.
bool IsHeldUp(pid_t pid) {
  std::error_code error;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    std::ifstream file(task.path() / "syscall");
    std::string text;
    if (std::getline(file, text) && text.starts_with(std::to_string(SYS_write) + " 0x1 ")) return true;
  }
  return false;
}

// Of the first thread, by SigBlk in proc(5).
bool Blocks(pid_t pid, int signal) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::uint64_t blocked = 0;
  for (std::string word; status >> word;)
    if (word == "SigBlk:") status >> std::hex >> blocked;
  return (blocked >> (signal - 1) & 1) != 0;
}

TEST(Pmhost, APatternOfProcessesThatIsNoneIsSaid) {
  Pmhost pmhost({"--exclude-process", "/usr/[ab", "os"});
  EXPECT_EQ(pmhost.Wait(), 2);
  EXPECT_NE(pmhost.Errors().find("'/usr/[ab' is not a pattern: a '[' without its ']'"), std::string::npos);
}

TEST(Pmhost, PatternsOfProcessesMayBeGivenTwiceAndInAFile) {
  Pmhost pmhost({"--exclude-process", "/usr/**", "--exclude-process", "ssh*", "os", "--json"});
  EXPECT_EQ(pmhost.Wait(), 0);
  const test_support::TempDirectory directory;
  const std::string file = directory.Write("pmhost.ini", "exclude-process = [\"/usr/**\", \"ssh*\"]\n");
  Pmhost configured({"--config", file, "os", "--json"});
  EXPECT_EQ(configured.Wait(), 0);
  const std::string wrong = directory.Write("wrong.ini", "exclude-process = [\"/usr/**\", \"ssh[\"]\n");
  Pmhost refused({"--config", wrong, "os"});
  EXPECT_EQ(refused.Wait(), 2);
  EXPECT_NE(refused.Errors().find("'ssh[' is not a pattern"), std::string::npos);
}

TEST(Pmhost, HelpAndVersionSucceed) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--help"}, {"--version"}, {"watch", "--help"}, {"os", "--help"}}) {
    Pmhost pmhost(arguments);
    EXPECT_EQ(pmhost.Wait(), 0) << arguments.front();
    EXPECT_NE(pmhost.Output(), "");
  }
}

TEST(Pmhost, AModuleThatIsNotThereIsNamed) {
  Pmhost pmhost({"--module", "/no/such/module.so", "watch"});
  EXPECT_EQ(pmhost.Wait(), 1);
  EXPECT_NE(pmhost.Errors().find("cannot load the module /no/such/module.so"), std::string::npos);
}

TEST(Pmhost, OsIsOneJsonObject) {
  Pmhost pmhost({"os", "--json"});
  Document os;
  ASSERT_FALSE(os.Parse(pmhost.ReadLine().c_str()).HasParseError());
  for (const char* name : {"name", "version", "description", "kernel", "workstation"})
    EXPECT_TRUE(os.HasMember(name)) << name;
  EXPECT_EQ(pmhost.Wait(), 0);
}

TEST(Pmhost, OsShowsValuesWithoutTheQuotesOfTheReleaseFile) {
  Pmhost pmhost({"os", "--json"});
  Document os;
  ASSERT_FALSE(os.Parse(pmhost.ReadLine().c_str()).HasParseError());
  for (const char* name : {"name", "version", "description"}) {
    ASSERT_TRUE(os[name].IsString() || os[name].IsNull()) << name;
    if (os[name].IsString()) {
      EXPECT_NE(os[name].GetString()[0], '"') << name;
    }
  }
}

TEST(Pmhost, OutputThatCannotBeWrittenIsAFailure) {
  Pmhost pmhost({"os"}, [] { ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO); });
  EXPECT_EQ(pmhost.Wait(), 1);
  EXPECT_EQ(pmhost.Errors(), "pmhost: cannot write the output: No space left on device\n");
}

TEST(Pmhost, AFileThatIsNoModuleIsNamed) {
  // Any library that is there: the C library of this process.
  Pmhost pmhost({"--module", "libc.so.6", "watch"}, [] {
    if (::chdir("/lib/x86_64-linux-gnu") != 0) ::_exit(126);
  });
  EXPECT_EQ(pmhost.Wait(), 1);
  EXPECT_NE(pmhost.Errors().find("/lib/x86_64-linux-gnu/libc.so.6 is no process manager module"),
            std::string::npos)
      << "a name without a slash is of the current directory";
}

TEST(Pmhost, OptionsComeFromAConfigurationFileToo) {
  const std::string path = testing::TempDir() + "pmhost_test.ini";
  std::ofstream(path) << "json=true\n";
  Pmhost pmhost({"--config", path, "os"});
  Document os;
  EXPECT_FALSE(os.Parse(pmhost.ReadLine().c_str()).HasParseError());
  EXPECT_EQ(pmhost.Wait(), 0);
  Pmhost missing({"--config", "/no/such/file.ini", "os"});
  EXPECT_EQ(missing.Wait(), 2);
  ::unlink(path.c_str());
}

TEST(Pmhost, AnUnknownOptionInAConfigurationFileIsNotPassedOver) {
  const test_support::TempDirectory directory;
  const Finished run({"--config", directory.Write("pmhost.ini", "exclude-proces = [\"sshd\"]\n"), "os"});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.errors.find("exclude-proces"), std::string::npos) << run.errors;
}

TEST(Pmhost, AnOptionThatMayBeRepeatedLeavesTheArgumentsOfTheCommandAlone) {
  const Finished run({"show", "--json", "--exclude-process", "no such program", "--feature", "none", "1"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_NE(run.output.find("\"pid\":1,"), std::string::npos);
}

// A reader that stands still holds up what is to be delivered, and with it the end.
TEST(Pmhost, ACommandThatIsHeldUpByItsReaderIsEndedByASignal) {
  const Child child = Child::Shell("/bin/sh", {std::string(1 << 16, 'x')});  // its line fills the pipe
  Pmhost pmhost({"ps", "--json"});
  ASSERT_TRUE(Eventually([&] { return IsHeldUp(pmhost.Pid()); }));
  pmhost.Kill(SIGTERM);
  EXPECT_EQ(pmhost.Wait(), 128 + SIGTERM);
}

TEST(PmhostWatch, ASecondSignalEndsOneThatIsHeldUpByItsReader) {
  PMHOST_NEEDS_ROOT();
  Pmhost pmhost({"watch", "--json"});
  const test_support::Actor storm({"storm", "0"});
  ASSERT_TRUE(Eventually([&] { return IsHeldUp(pmhost.Pid()); }));
  ASSERT_TRUE(Blocks(pmhost.Pid(), SIGTERM));
  pmhost.Kill(SIGTERM);
  ASSERT_TRUE(Eventually([&] { return !Blocks(pmhost.Pid(), SIGTERM); }));
  pmhost.Kill(SIGTERM);
  EXPECT_EQ(pmhost.Wait(), 128 + SIGTERM);
}

TEST(Pmhost, FeaturesTellTheProcConnector) {
  PMHOST_NEEDS_ROOT();
  Pmhost pmhost({"features", "--json"});
  Document feature;
  ASSERT_FALSE(feature.Parse(pmhost.ReadLine().c_str()).HasParseError());
  EXPECT_STREQ(feature["feature"].GetString(), "ProcessMonitoring");
  EXPECT_STREQ(feature["technologies"][0].GetString(), "Netlink");
  EXPECT_EQ(pmhost.Wait(), 0);
}

TEST(Pmhost, AMissingRightIsNamed) {
  PMHOST_NEEDS_ROOT();
  Pmhost pmhost({"watch"}, host_tests::BecomeNobody);
  const int status = pmhost.Wait();
  EXPECT_EQ(status, 1);
  EXPECT_NE(pmhost.Errors().find("needs CAP_NET_ADMIN: run as root"), std::string::npos);
}

// For the child: its group isn't that of its starter, which the kernel takes for a set-group-id program.
void GainRights() {
  ::setenv("VORN_HOST_PROCFS", "/tmp", 1);
  ::setenv("QOR_VALGRIND_CHECK", "ON", 1);
  if (::setresgid(65534, ::getegid(), ::getegid()) != 0) ::_exit(126);
}

TEST(PmhostEnvironment, OfAStarterWithFewerRightsIsIgnoredAndSaidToBe) {
  PMHOST_NEEDS_ROOT();
  const host_tests::Finished finished({"show", "1", "--json"}, &GainRights);
  EXPECT_EQ(finished.status, 0) << finished.errors;
  EXPECT_THAT(finished.output, ::testing::HasSubstr("\"pid\":1,"));
  EXPECT_THAT(finished.errors, ::testing::HasSubstr("ignores VORN_HOST_PROCFS"));
  EXPECT_THAT(finished.errors, ::testing::HasSubstr("ignores QOR_VALGRIND_CHECK"));
}

TEST(PmhostEnvironment, OfAStarterWithTheSameRightsIsUsed) {
  const host_tests::Finished finished({"show", "1", "--json"},
                                      [] { ::setenv("VORN_HOST_PROCFS", "/tmp", 1); });
  EXPECT_EQ(finished.status, 1);
  EXPECT_THAT(finished.errors, ::testing::Not(::testing::HasSubstr("ignores")));
}

}  // namespace
