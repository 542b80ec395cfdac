// pmhost kill: the end of a process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "host/process_list.h"
#include "host/run_pmhost.h"
#include "support/actor.h"
#include "support/rights.h"
#include "support/temp_directory.h"
#include "support/threads.h"

namespace {

using host_tests::BecomeNobody;
using host_tests::Finished;
using host_tests::LinesOf;
using host_tests::ParseLine;
using host_tests::Pmhost;
using host_tests::TextOf;
using rapidjson::Document;
using test_support::Actor;
using test_support::StateOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Longer than any test lasts: a wait that comes to its end would be seen.
constexpr const char* kLong = "600000";

std::string Text(pid_t pid) {
  return std::to_string(pid);
}

// Ready, and collected as soon as it ends.
class Victim {
 public:
  explicit Victim(std::vector<std::string> steps) : m_actor(Ready(std::move(steps))) {
    EXPECT_EQ(m_actor.HearPid(), Pid());
    m_status = std::async(std::launch::async, [this] { return m_actor.Wait(); });
  }
  ~Victim() {
    if (m_status.valid()) ::kill(Pid(), SIGKILL);
  }
  Victim(const Victim&) = delete;
  Victim& operator=(const Victim&) = delete;

  [[nodiscard]] pid_t Pid() const { return m_actor.Pid(); }
  [[nodiscard]] bool Lives() const { return StateOf(Pid()) == 'S'; }
  // The exit status, or 128 and the signal.
  int Wait() { return m_status.get(); }

 private:
  static std::vector<std::string> Ready(std::vector<std::string> steps) {
    steps.insert(steps.end(), {"say", "wait"});
    return steps;
  }

  Actor m_actor;
  std::future<int> m_status;
};

TEST(PmhostKill, AsksAProcessToEnd) {
  Victim victim({});
  const Finished run({"--json", "kill", Text(victim.Pid())});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(victim.Wait(), 128 + SIGTERM);
  const std::vector<std::string> lines = LinesOf(run.output);
  ASSERT_EQ(lines.size(), 1U);
  const Document process = ParseLine(lines.front());
  EXPECT_EQ(process.MemberCount(), 16U);
  EXPECT_EQ(process["pid"].GetInt(), victim.Pid());
  EXPECT_EQ(process["parent_pid"].GetInt(), ::getpid());
  EXPECT_EQ(TextOf(process, "command_line"), "actor say wait");
  EXPECT_STREQ(process["state"].GetString(), "created") << "what it was before";
  EXPECT_TRUE(process["terminated"].IsBool());
}

TEST(PmhostKill, DoesNotWaitUnlessItIsTold) {
  Victim victim({"ignore", "15"});
  const Finished run({"--json", "kill", Text(victim.Pid())});
  EXPECT_EQ(run.status, 0);
  EXPECT_FALSE(ParseLine(run.output.substr(0, run.output.size() - 1))["terminated"].GetBool());
  EXPECT_TRUE(victim.Lives());
  const Finished person({"kill", Text(victim.Pid())});
  EXPECT_EQ(person.output, "process " + Text(victim.Pid()) +
                               " (actor ignore 15 say wait) was asked to end, and has not yet\n");
}

TEST(PmhostKill, WaitsForTheEndAndNoLonger) {
  Victim victim({});
  const Finished run({"kill", Text(victim.Pid()), "--wait", kLong});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "process " + Text(victim.Pid()) + " (actor say wait) has ended\n");
  EXPECT_EQ(victim.Wait(), 128 + SIGTERM) << "there was no need to force it";
}

TEST(PmhostKill, ForcesAProcessThatIgnoresTheFirstSignal) {
  for (const char* wait : {"0", "5", "50"}) {
    Victim victim({"ignore", "15"});
    const Finished run({"--json", "kill", "--wait", wait, Text(victim.Pid())});
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_TRUE(ParseLine(run.output.substr(0, run.output.size() - 1))["terminated"].GetBool());
    EXPECT_EQ(victim.Wait(), 128 + SIGKILL);
  }
}

TEST(PmhostKill, AProcessWhoseParentDoesNotCollectItHasEndedAllTheSame) {
  Actor actor({"abandon", "say", "wait"});
  const pid_t child = actor.HearPid();
  const Finished run({"kill", Text(child), "--wait", "20"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "process " + Text(child) +
                            " (actor abandon say wait) has ended; its parent, process " + Text(actor.Pid()) +
                            ", has yet to collect it\n");
  EXPECT_EQ(StateOf(child), 'Z');
}

TEST(PmhostKill, AZombieHasEndedAlready) {
  Actor actor({"abandon", "say"});
  const pid_t zombie = actor.HearPid();
  while (StateOf(zombie) != 'Z') ::usleep(1000);
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"kill", Text(zombie)}, {"kill", Text(zombie), "--wait", kLong}}) {
    const Finished run(arguments);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "pmhost: cannot end process " + Text(zombie) +
                              ": it has ended already; its parent, process " + Text(actor.Pid()) +
                              ", has yet to collect it\n");
  }
}

TEST(PmhostKill, WhoIsNotThereIsNamed) {
  for (const std::string& pid :
       {Text(test_support::RunTrue()), std::string("4194305"), std::string("2147483647")}) {
    const Finished run({"kill", pid});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "pmhost: cannot end process " + pid + ": there is no such process\n");
  }
}

TEST(PmhostKill, WhoIsGoneIsNotWaitedFor) {
  const std::string pid = Text(test_support::RunTrue());
  for (const char* wait : {"0", kLong}) {
    const Finished run({"--json", "kill", pid, "--wait", wait});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "pmhost: cannot end process " + pid + ": there is no such process\n");
  }
}

TEST(PmhostKill, TheKernelIsNotEnded) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"kill", "0"}, {"kill", "0", "--wait", kLong}}) {
    const Finished run(arguments);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.errors, "pmhost: cannot end process 0: it is the kernel, which no signal ends\n");
  }
}

TEST(PmhostKill, DoesNotEndItself) {
  for (const char* command : {R"(exec "$0" kill $$ 2>&1)", R"(exec "$0" kill $$ --wait 10 2>&1)"})
    EXPECT_EQ(test_support::Reap(test_support::Spawn("/bin/sh", {"sh", "-c", command, PMHOST_BINARY})), 1)
        << command;
}

TEST(PmhostKill, AThreadIsNotMistakenForItsProcess) {
  std::promise<pid_t> id;
  std::promise<void> done;
  std::thread thread([&] {
    id.set_value(static_cast<pid_t>(::syscall(SYS_gettid)));
    done.get_future().wait();
  });
  const pid_t tid = id.get_future().get();
  const Finished run({"kill", Text(tid)});
  done.set_value();
  thread.join();
  EXPECT_EQ(run.status, 1) << "and this test is alive";
  EXPECT_EQ(run.errors, "pmhost: cannot end process " + Text(tid) + ": that is a thread of process " +
                            Text(::getpid()) + "; pmhost kill " + Text(::getpid()) +
                            " ends it with all its threads\n");
}

TEST(PmhostKill, AProcessOfAnotherUserStaysAndTheMissingRightIsNamed) {
  SKIP_IF(test_support::MissingRight(CAP_SETUID, "for a process of another user"));
  Victim victim({});
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"kill", Text(victim.Pid())}, {"kill", Text(victim.Pid()), "--wait", "0"}}) {
    const Finished run(arguments, BecomeNobody);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "");
    EXPECT_THAT(run.errors,
                StartsWith("pmhost: cannot end process " + Text(victim.Pid()) + ": needs CAP_KILL"));
    EXPECT_THAT(run.errors, HasSubstr("run as root"));
  }
  EXPECT_TRUE(victim.Lives());
}

// For the child: an ordinary user from now on, who may look at every process.
void BecomeAWatchingNobody() {
  constexpr std::uint32_t kLook = CAP_TO_MASK(CAP_SYS_PTRACE);
  static_assert(CAP_TO_INDEX(CAP_SYS_PTRACE) == 0);
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  const __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {
      {.effective = kLook, .permitted = kLook, .inheritable = kLook}, {}};
  if (::prctl(PR_SET_KEEPCAPS, 1) != 0) ::_exit(126);
  BecomeNobody();
  if (::syscall(SYS_capset, &header, data) != 0 ||
      ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_SYS_PTRACE, 0, 0) != 0)
    ::_exit(126);
}

// Found, read, and refused by kill(2) itself.
TEST(PmhostKill, AProcessThatMayBeSeenAndNotSignalledStaysAndTheMissingRightIsNamed) {
  SKIP_IF(test_support::MissingRight(CAP_SETUID, "for a process of another user"));
  if (::prctl(PR_CAPBSET_READ, CAP_SYS_PTRACE) != 1) GTEST_SKIP() << "needs CAP_SYS_PTRACE to give on";
  Victim victim({});
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"kill", Text(victim.Pid())},
        {"kill", Text(victim.Pid()), "--wait", "0"},
        {"--json", "kill", Text(victim.Pid()), "--wait", kLong}}) {
    const Finished run(arguments, BecomeAWatchingNobody);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "pmhost: cannot end process " + Text(victim.Pid()) +
                              ": needs CAP_KILL, as it belongs to another user: run as root\n");
  }
  EXPECT_TRUE(victim.Lives());
}

TEST(PmhostKill, AProcessWithArgumentsThatAreNoTextEnds) {
  Victim victim({"exec", Actor::Path(), "a \xff name"});
  const Finished run({"kill", Text(victim.Pid()), "--wait", kLong});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("(a \uFFFD name say wait) has ended"));
}

TEST(PmhostKill, ControlCharactersAreShownAndNotSent) {
  Victim victim({"exec", Actor::Path(), "red \x1b[31m"});
  const Finished run({"kill", Text(victim.Pid()), "--wait", kLong});
  EXPECT_EQ(run.output, "process " + Text(victim.Pid()) + " (red \\x1b[31m say wait) has ended\n");
}

// --- an interrupt ------------------------------------------------------------------------------------------

TEST(PmhostKill, AnInterruptEndsTheWaitAndForcesNothing) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Victim victim({"ignore", "15"});
    const test_support::TempDirectory directory;
    const std::string trace = directory.Path() + "/trace";
    Pmhost pmhost({"--trace", "800", "--trace-file", trace, "kill", Text(victim.Pid()), "--wait", kLong});
    ASSERT_TRUE(test_support::Eventually([&] {
      std::ifstream file(trace);
      const std::string text(std::istreambuf_iterator<char>(file), {});
      return text.find("Kill() signo=15") != std::string::npos;
    }));
    pmhost.Kill(signal);
    EXPECT_EQ(pmhost.Wait(), 128 + signal);
    EXPECT_TRUE(victim.Lives());
  }
}

// --- usage -------------------------------------------------------------------------------------------------

TEST(PmhostKill, HelpTellsItsOptions) {
  const Finished run({"kill", "--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.output, HasSubstr("--wait MS"));
  EXPECT_THAT(run.output, HasSubstr("SIGKILL"));
}

}  // namespace
