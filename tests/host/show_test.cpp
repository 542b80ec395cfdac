// pmhost show: all that is known of one process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/process_list.h"
#include "host/run_pmhost.h"
#include "support/actor.h"
#include "support/rights.h"

namespace {

using host_tests::BecomeNobody;
using host_tests::Finished;
using host_tests::LinesOf;
using host_tests::ParseLine;
using host_tests::TextOf;
using rapidjson::Document;
using rapidjson::Value;
using test_support::Actor;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// The one object of a run that succeeds.
Document Show(std::vector<std::string> arguments, const std::function<void()>& prepare = {}) {
  arguments.insert(arguments.begin(), {"--json", "show"});
  const Finished run(arguments, prepare);
  EXPECT_EQ(run.status, 0) << run.errors;
  const std::vector<std::string> lines = LinesOf(run.output);
  EXPECT_EQ(lines.size(), 1U) << run.errors;
  return lines.empty() ? Document(rapidjson::kObjectType) : ParseLine(lines.front());
}
Document Show(pid_t pid) {
  return Show({std::to_string(pid)});
}

std::vector<std::string> ListOf(const Value& list) {
  std::vector<std::string> items;
  for (const Value& item : list.GetArray()) items.emplace_back(item.GetString(), item.GetStringLength());
  return items;
}

// A variable of the environment of all that starts while it lives.
class Variable {
 public:
  Variable(const char* name, const char* value) : m_name(name) {
    if (const char* const old = std::getenv(name)) m_old = old;
    ::setenv(name, value, 1);
  }
  ~Variable() { m_old ? ::setenv(m_name, m_old->c_str(), 1) : ::unsetenv(m_name); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* const m_name;
  std::optional<std::string> m_old;
};

TEST(PmhostShow, TellsWhatPsTellsAndWhatIsKnownBeyond) {
  Actor actor({"say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const Document process = Show(actor.Pid());
  const auto listed = host_tests::ObjectsOf(Finished({"ps", "--json"}).output);
  const Document& expected = listed.at(actor.Pid());
  const std::set<std::string> ofTheRun = {"unique_pid", "unique_parent_pid", "unique_creator_pid"};
  auto member = process.MemberBegin();
  for (auto other = expected.MemberBegin(); other != expected.MemberEnd(); ++other, ++member) {
    const std::string name = other->name.GetString();
    EXPECT_EQ(member->name.GetString(), name) << "the same members, in the same order";
    if (!ofTheRun.contains(name)) {
      EXPECT_TRUE(member->value == other->value) << name;
    }
  }
  for (const char* name :
       {"effective_user_id", "real_group_id", "effective_group_id", "environment", "mount_namespace",
        "host_mount_namespace", "localization", "attributes", "times", "io"})
    EXPECT_STREQ((member++)->name.GetString(), name);
  EXPECT_EQ(member, process.MemberEnd());
}

TEST(PmhostShow, TellsUsersAndGroups) {
  SKIP_IF(test_support::MissingRight(CAP_SETUID, "to become other users"));
  Actor actor({"group", "23456", "user", "12345", "say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const Document process = Show(actor.Pid());
  EXPECT_EQ(process["user_id"].GetUint(), 12345U)
      << "its directory in /proc is root's, for it may not be dumped";
  EXPECT_EQ(process["effective_user_id"].GetUint(), 12345U);
  EXPECT_EQ(process["real_group_id"].GetUint(), 23456U);
  EXPECT_EQ(process["effective_group_id"].GetUint(), 23456U);
}

TEST(PmhostShow, TellsTheEnvironmentAndTheLanguageInIt) {
  for (const auto& [lang, language] : {std::pair("ru_RU.UTF-8", "ru"), {"zh_TW.UTF-8", "zh-hant"}}) {
    const Variable variable("LANG", lang);
    const Variable empty("PM_TEST_EMPTY", "");
    Actor actor({"say", "wait"});
    ASSERT_EQ(actor.HearPid(), actor.Pid());
    const Document process = Show(actor.Pid());
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
    EXPECT_EQ(ListOf(process["environment"]), environment);
    EXPECT_EQ(TextOf(process, "localization"), language);
  }
}

TEST(PmhostShow, WithoutALanguageItIsThatOfPmhost) {
  const Variable none("LANG", "C");
  Actor actor({"say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const Document process = Show({std::to_string(actor.Pid())}, [] { ::setenv("LANG", "de_DE.UTF-8", 1); });
  EXPECT_EQ(TextOf(process, "localization"), "de");
}

std::string InodeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return std::to_string(status.st_ino);
}

TEST(PmhostShow, TellsTheMountNamespace) {
  SKIP_IF(test_support::MissingMountRights());
  for (const bool own : {false, true}) {
    std::vector<std::string> steps = {"say", "wait"};
    if (own) steps.insert(steps.begin(), "mounts");
    Actor actor(steps);
    ASSERT_EQ(actor.TryHearPid(), actor.Pid()) << "no mount namespace can be made";
    const Document process = Show(actor.Pid());
    EXPECT_EQ(TextOf(process, "mount_namespace"),
              InodeOf("/proc/" + std::to_string(actor.Pid()) + "/ns/mnt"));
    EXPECT_EQ(process["host_mount_namespace"].GetBool(), !own);
  }
}

TEST(PmhostShow, TellsTheAttributes) {
  Actor actor({"say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const std::string pid = std::to_string(actor.Pid());
  EXPECT_THAT(ListOf(Show({pid})["attributes"]), ElementsAre());
  EXPECT_THAT(ListOf(Show({pid, "--exclude-process", Actor::Path()})["attributes"]),
              ElementsAre("invisible"));
  EXPECT_THAT(LinesOf(Finished({"--exclude-process", Actor::Path(), "show", pid}).output),
              testing::Contains("attributes            invisible"));
}

struct Counters {
  std::uint64_t userSeconds = 0;
  std::uint64_t kernelSeconds = 0;
  std::uint64_t readBytes = 0;
};

Counters OwnCounters() {
  Counters counters;
  std::ifstream stat("/proc/self/stat");
  std::string word;
  for (int field = 1; field <= 15; ++field) {  // proc(5); the name of the test has no blank
    stat >> word;
    if (field == 14)
      counters.userSeconds = std::stoull(word) / static_cast<unsigned long>(::sysconf(_SC_CLK_TCK));
    if (field == 15)
      counters.kernelSeconds = std::stoull(word) / static_cast<unsigned long>(::sysconf(_SC_CLK_TCK));
  }
  std::ifstream io("/proc/self/io");
  while (io >> word)
    if (word == "rchar:") io >> counters.readBytes;
  return counters;
}

TEST(PmhostShow, TellsTimesInSecondsAndWhatWasReadAndWritten) {
  const Counters before = OwnCounters();
  const Document process = Show(::getpid());
  const Counters behind = OwnCounters();
  const Value& times = process["times"];
  EXPECT_EQ(times.MemberCount(), 2U);
  EXPECT_GE(times["user_seconds"].GetUint64(), before.userSeconds);
  EXPECT_LE(times["user_seconds"].GetUint64(), behind.userSeconds);
  EXPECT_GE(times["kernel_seconds"].GetUint64(), before.kernelSeconds);
  EXPECT_LE(times["kernel_seconds"].GetUint64(), behind.kernelSeconds);
  const Value& io = process["io"];
  EXPECT_EQ(io.MemberCount(), 4U);
  EXPECT_GE(std::stoull(TextOf(io, "read_bytes")), before.readBytes);
  EXPECT_LE(std::stoull(TextOf(io, "read_bytes")), behind.readBytes);
  for (const char* name : {"read_operations", "write_operations", "write_bytes"})
    EXPECT_NE(TextOf(io, name), "") << name;
}

TEST(PmhostShow, TheKernelIsAProcessTooOfWhichLessIsKnown) {
  const Document kernel = Show(0);
  EXPECT_EQ(kernel["pid"].GetInt(), 0);
  EXPECT_EQ(TextOf(kernel, "image_path"), "kernel memory");
  EXPECT_EQ(kernel["effective_user_id"].GetInt(), 0);
  for (const char* name : {"parent_pid", "start_time", "environment", "mount_namespace",
                           "host_mount_namespace", "localization", "times", "io"})
    EXPECT_TRUE(kernel[name].IsNull()) << name;
  const Document again = Show({"--unique", "0"});
  EXPECT_EQ(again["pid"].GetInt(), 0);
}

TEST(PmhostShow, AThreadIsShownUnderItsOwnId) {
  std::promise<pid_t> id;
  std::promise<void> done;
  std::thread thread([&] {
    id.set_value(static_cast<pid_t>(::syscall(SYS_gettid)));
    done.get_future().wait();
  });
  const pid_t tid = id.get_future().get();
  const Document shown = Show(tid);
  const Document process = Show(::getpid());
  done.set_value();
  thread.join();
  EXPECT_EQ(shown["pid"].GetInt(), tid);
  EXPECT_EQ(shown["parent_pid"].GetInt(), ::getppid());
  EXPECT_EQ(TextOf(shown, "command_line"), TextOf(process, "command_line"));
}

TEST(PmhostShow, AFormForAPerson) {
  Actor actor({"exec", Actor::Path(), "red \x1b[31m\nbell\a", "say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const Finished run({"show", std::to_string(actor.Pid())});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.errors, "");
  const std::vector<std::string> lines = LinesOf(run.output);
  EXPECT_EQ(lines.front(), "pid                   " + std::to_string(actor.Pid()));
  EXPECT_THAT(lines, testing::Contains("command line          red \\x1b[31m\\x0abell\\x07 say wait"));
  EXPECT_THAT(lines, testing::Contains("image path            " + Actor::Path()));
  EXPECT_THAT(lines, testing::Contains("state                 created"));
  EXPECT_THAT(lines, testing::Contains("kernel time           0 s"));
  EXPECT_THAT(run.output, Not(HasSubstr("\x1b")));
  for (const std::string& line : lines) {
    ASSERT_GT(line.size(), 22U) << line;
    EXPECT_EQ(line.substr(20, 2), "  ") << line;
    EXPECT_NE(line[22], ' ') << line;
  }
}

TEST(PmhostShow, TextsThatAreNoTextAreReadable) {
  Actor actor({"exec", Actor::Path(), "a \xff name", "say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const Document process = Show(actor.Pid());
  EXPECT_EQ(TextOf(process, "command_line"), "a \uFFFD name say wait");
  EXPECT_EQ(TextOf(process, "image_path"), Actor::Path());
  EXPECT_TRUE(process["environment"].IsArray());
  for (const char* name : {"unique_pid", "attributes", "times"}) EXPECT_FALSE(process[name].IsNull()) << name;
}

TEST(PmhostShow, AProcessOfAnotherUserIsToldInPartAndTheMissingRightIsNamed) {
  SKIP_IF(test_support::MissingRight(CAP_SETUID, "for a process of another user"));
  Actor actor({"say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const std::string pid = std::to_string(actor.Pid());
  const Finished run({"--json", "show", pid}, BecomeNobody);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.errors,
            "pmhost: process " + pid +
                " could be read in part only, as it belongs to another user or is protected: needs "
                "CAP_SYS_PTRACE: run as root\n");
  const Document process = ParseLine(LinesOf(run.output).front());
  EXPECT_EQ(TextOf(process, "command_line"), "actor say wait");
  EXPECT_EQ(process["effective_user_id"].GetInt(), 0);
  for (const char* name : {"unique_pid", "image_path", "environment", "mount_namespace",
                           "host_mount_namespace", "localization", "attributes", "times", "io"})
    EXPECT_TRUE(process[name].IsNull()) << name;
}

// --- by unique pid -----------------------------------------------------------------------------------------

constexpr int kShift = 32;  // seconds above, a counter and the pid below

std::string UniquePid(std::time_t seconds, pid_t pid) {
  return std::to_string(static_cast<std::uint64_t>(seconds) << kShift | 5ULL << 23 |
                        static_cast<unsigned>(pid));
}

TEST(PmhostShow, FindsByTheUniquePidThatPsTold) {
  Actor actor({"say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const auto listed = host_tests::ObjectsOf(Finished({"ps", "--json"}).output);
  const std::string uniquePid = TextOf(listed.at(actor.Pid()), "unique_pid");
  const Finished run({"--json", "show", "--unique", uniquePid});
  EXPECT_EQ(run.status, 0);
  const Document process = ParseLine(LinesOf(run.output).front());
  EXPECT_EQ(process["pid"].GetInt(), actor.Pid());
  EXPECT_THAT(run.errors, HasSubstr("is of another run of the module")) << "nobody can tell the image";
}

TEST(PmhostShow, AnImageThatIsGoneIsNotMistakenForWhoHasItsPid) {
  Actor actor({"say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const std::time_t now = ::time(nullptr);
  const std::string gone[] = {
      UniquePid(now, test_support::RunTrue()),  // nobody has the pid
      UniquePid(now - 3600, actor.Pid()),       // the process began later
      UniquePid(now + 3600, actor.Pid()),       // no run of the module has named it
      UniquePid(now, 0),                        // the kernel has one image, with another id
      "18446744073709551615",
  };
  for (const std::string& uniquePid : gone) {
    const Finished run({"show", "--unique", uniquePid});
    EXPECT_EQ(run.status, 1) << uniquePid;
    EXPECT_EQ(run.output, "");
    EXPECT_THAT(run.errors, StartsWith("pmhost: cannot show the image with the unique pid " + uniquePid +
                                       ": it is gone"));
  }
}

// --- failures and usage ------------------------------------------------------------------------------------

TEST(PmhostShow, WhoIsNotThereIsNamed) {
  for (const std::string& pid :
       {std::to_string(test_support::RunTrue()), std::string("4194305"), std::string("2147483647")}) {
    const Finished run({"show", pid});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "pmhost: cannot show process " + pid + ": there is no such process\n");
  }
}

TEST(PmhostShow, WhoHasEndedIsSaidToWaitForItsParent) {
  Actor actor({"abandon", "say"});
  const pid_t zombie = actor.HearPid();
  while (test_support::StateOf(zombie) != 'Z') ::usleep(1000);
  const Finished run({"show", std::to_string(zombie)});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.errors, "pmhost: cannot show process " + std::to_string(zombie) +
                            ": it has ended already; its parent, process " + std::to_string(actor.Pid()) +
                            ", has yet to collect it\n");
}

TEST(PmhostShow, NumbersAreDecimalWithLeadingZerosToo) {
  const std::string pid = std::to_string(::getpid());
  EXPECT_EQ(Show({"000" + pid})["pid"].GetInt(), ::getpid());
}

TEST(PmhostShow, HelpTellsItsOptions) {
  const Finished run({"show", "--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.output, HasSubstr("--unique ID"));
  EXPECT_THAT(run.output, HasSubstr("PID"));
}

}  // namespace
