// pmhost ps: all processes, compared with what others tell of them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/process_list.h"
#include "host/run_pmhost.h"
#include "support/actor.h"
#include "support/rights.h"
#include "support/unshare_mounts.h"

namespace {

using host_tests::AsPsPrintsIt;
using host_tests::BecomeNobody;
using host_tests::Finished;
using host_tests::LinesOf;
using host_tests::ObjectsOf;
using host_tests::ParseLine;
using host_tests::Pmhost;
using host_tests::ProcessObjects;
using host_tests::PsRow;
using host_tests::RunPs;
using host_tests::SecondOf;
using host_tests::TextOf;
using rapidjson::Document;
using test_support::Actor;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

const char* const kMembers[] = {
    "pid",        "unique_pid", "parent_pid", "unique_parent_pid", "creator_pid",       "unique_creator_pid",
    "session_id", "start_time", "exit_time",  "image_path",        "working_directory", "command_line",
    "user_id",    "flags",      "state"};

bool IsToldInPart(const Document& process) {
  return process["unique_pid"].IsNull();
}

// A thread of the kernel that works for others is named after its work, which changes.
std::string WithoutWork(const std::string& name) {
  return name.starts_with("[kworker/") ? name.substr(0, name.find_first_of("-+")) : name;
}

void Compare(const Document& process, const PsRow& row) {
  EXPECT_EQ(process["parent_pid"].GetInt(), row.parent);
  EXPECT_EQ(process["user_id"].GetUint(), row.user);
  // ps(1) takes the second in which the machine booted as its first moment.
  EXPECT_NEAR(static_cast<double>(SecondOf(TextOf(process, "start_time"))), static_cast<double>(row.start),
              1.0);
  const std::string command =
      TextOf(process, process["command_line"].IsNull() ? "image_path" : "command_line");
  if (command.find("\\udc") == std::string::npos) {
    EXPECT_EQ(WithoutWork(AsPsPrintsIt(command)), WithoutWork(row.command));
  }
}

// Compares with what ps(1) told before and told again behind; gives back with how many.
std::size_t CompareAll(const std::map<pid_t, PsRow>& before, const ProcessObjects& processes,
                       const std::map<pid_t, PsRow>& behind) {
  std::size_t compared = 0;
  for (const auto& [pid, row] : before) {
    const auto again = behind.find(pid);
    if (row.ended || again == behind.end() || again->second.ended || again->second.start != row.start ||
        again->second.parent != row.parent || WithoutWork(again->second.command) != WithoutWork(row.command))
      continue;
    SCOPED_TRACE("process " + std::to_string(pid) + ": " + row.command);
    const auto found = processes.find(pid);
    EXPECT_NE(found, processes.end());
    if (found == processes.end()) continue;
    Compare(found->second, row);
    ++compared;
  }
  for (const auto& [pid, process] : processes) {
    const bool everTold = pid == 0 || before.contains(pid) || behind.contains(pid) ||
                          TextOf(process, "command_line").find("pmhost") != std::string::npos;
    // What lived between the two looks only is another's business.
    if (!everTold) {
      EXPECT_GT(SecondOf(TextOf(process, "start_time")) + 60, ::time(nullptr)) << pid;
    }
  }
  return compared;
}

// Children of a few parents, under some users, each with a command line of its own.
class Crowd {
 public:
  static constexpr std::size_t kParents = 8;
  static constexpr std::size_t kChildren = 250;

  Crowd() {
    for (std::size_t i = 0; i < kParents; ++i) {
      std::vector<std::string> steps = {"brood", std::to_string(kChildren)};
      if (::geteuid() == 0 && i % 2 == 1)
        steps.insert(steps.end(), {"group", std::to_string(20000 + i), "user", std::to_string(10000 + i)});
      steps.insert(steps.end(), {"mark", "0000000"});
      m_parents.push_back(std::make_unique<Actor>(steps));
    }
    for (const auto& parent : m_parents) EXPECT_EQ(parent->HearPid(), parent->Pid());
  }
  ~Crowd() {
    for (const auto& parent : m_parents) parent->GoOn();
    for (const auto& parent : m_parents) parent->Wait();
  }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  [[nodiscard]] bool IsChild(const Document& process) const {
    const auto& parent = process["parent_pid"];  // null for the kernel
    return parent.IsInt() &&
           std::ranges::any_of(m_parents, [&](const auto& actor) { return actor->Pid() == parent.GetInt(); });
  }

 private:
  std::vector<std::unique_ptr<Actor>> m_parents;
};

TEST(PmhostPs, TellsTwoThousandProcessesAsPsDoes) {
  const Crowd crowd;
  const auto before = RunPs();
  const Finished run({"ps", "--json"});
  const auto behind = RunPs();
  EXPECT_EQ(run.status, 0);
  const ProcessObjects processes = ObjectsOf(run.output);
  EXPECT_GE(CompareAll(before, processes, behind), Crowd::kParents * (Crowd::kChildren + 1));
  std::set<std::string> uniquePids;
  std::set<std::string> commands;
  for (const auto& [pid, process] : processes) {
    if (!crowd.IsChild(process)) continue;
    uniquePids.insert(TextOf(process, "unique_pid"));
    commands.insert(TextOf(process, "command_line"));
    EXPECT_EQ(TextOf(process, "unique_parent_pid"),
              TextOf(processes.at(process["parent_pid"].GetInt()), "unique_pid"));
    EXPECT_EQ(TextOf(process, "image_path"), Actor::Path());
  }
  EXPECT_EQ(uniquePids.size(), Crowd::kParents * Crowd::kChildren);
  EXPECT_EQ(commands.size(), Crowd::kParents * Crowd::kChildren);
}

TEST(PmhostPs, TellsThreadsOfTheKernelByTheirNames) {
  const Finished run({"ps", "--json"});
  const ProcessObjects processes = ObjectsOf(run.output);
  const auto first = processes.find(2);
  if (first == processes.end() || first->second["image_path"].IsNull() ||
      TextOf(first->second, "image_path") != "[kthreadd]")
    GTEST_SKIP() << "no kernel thread is to be seen: run in the machine's first pid namespace";
  for (const auto& [pid, process] : processes) {
    if (process["parent_pid"].IsNull() || process["parent_pid"].GetInt() != 2) continue;
    EXPECT_TRUE(process["command_line"].IsNull());
    EXPECT_EQ(TextOf(process, "image_path").front(), '[');
    EXPECT_EQ(process["flags"].Size(), 2U);
    if (::geteuid() == 0) {
      EXPECT_TRUE(process["unique_pid"].IsString()) << pid;
    }
  }
}

TEST(PmhostPs, TheKernelIsTheLast) {
  const Finished run({"ps", "--json"});
  const Document kernel = ParseLine(LinesOf(run.output).back());
  EXPECT_EQ(kernel["pid"].GetInt(), 0);
  EXPECT_EQ(TextOf(kernel, "unique_pid"), "0");
  EXPECT_EQ(TextOf(kernel, "image_path"), "kernel memory");
  for (const char* name : {"parent_pid", "unique_parent_pid", "creator_pid", "start_time", "exit_time"})
    EXPECT_TRUE(kernel[name].IsNull()) << name;
  EXPECT_FALSE(TextOf(kernel, "command_line").ends_with('\n'));
  const Finished table({"ps"});
  EXPECT_THAT(LinesOf(table.output).back(), HasSubstr("  kernel memory: "));
}

TEST(PmhostPs, EachObjectHasAllMembersInTheOrderOfThatOfWatch) {
  const Finished run({"ps", "--json"});
  for (const std::string& line : LinesOf(run.output)) {
    const Document process = ParseLine(line);
    ASSERT_EQ(process.MemberCount(), std::size(kMembers)) << line;
    std::size_t i = 0;
    for (auto member = process.MemberBegin(); member != process.MemberEnd(); ++member)
      EXPECT_STREQ(member->name.GetString(), kMembers[i++]);
  }
}

// As root nothing is told in part but what was so before: a process of which root lacks the rights.
TEST(PmhostPs, TwentyRunsInAStormFailNeverAndTellNothingByHalves) {
  std::set<pid_t> inPart;
  for (const auto& [pid, process] : ObjectsOf(Finished({"ps", "--json"}).output))
    if (IsToldInPart(process)) inPart.insert(pid);
  const Actor storms[] = {Actor({"storm", "0"}), Actor({"storm-of-programs"}), Actor({"storm-of-programs"})};
  int ended = 0;  // soon after they were told
  for (int i = 0; i < 20; ++i) {
    const Finished run({"ps", "--json"});
    ASSERT_EQ(run.status, 0) << run.errors;
    const ProcessObjects processes = ObjectsOf(run.output);
    ASSERT_TRUE(processes.contains(storms[0].Pid()));
    const std::string begin = TextOf(processes.at(storms[0].Pid()), "start_time");
    for (const auto& [pid, process] : processes) {
      SCOPED_TRACE(pid);
      EXPECT_EQ(process.MemberCount(), std::size(kMembers));
      EXPECT_STREQ(process["state"].GetString(), "created");
      if (pid == 0 || ::geteuid() != 0 || inPart.contains(pid)) continue;
      for (const char* name : {"unique_pid", "unique_parent_pid", "unique_creator_pid", "start_time",
                               "image_path", "working_directory"})
        EXPECT_TRUE(process[name].IsString()) << name;
      for (const char* name : {"parent_pid", "creator_pid", "session_id", "user_id"})
        EXPECT_TRUE(process[name].IsUint()) << name;
      EXPECT_TRUE(process["flags"].IsArray());
      const auto isParent = [&](const Actor& storm) { return process["parent_pid"].GetInt() == storm.Pid(); };
      if (std::ranges::none_of(storms, isParent)) continue;
      ++ended;
      EXPECT_TRUE(process["command_line"].IsString());
      EXPECT_GE(TextOf(process, "start_time"), begin) << "the kernel's time, and not that of a directory";
    }
  }
  EXPECT_GT(ended, 0) << "the storms blew elsewhere";
}

TEST(PmhostPs, OnlyProcessesThatCouldNotBeReadAreNotedOnStandardError) {
  const Finished run({"ps", "--json"});
  bool anyInPart = false;
  for (const auto& [pid, process] : ObjectsOf(run.output)) anyInPart |= IsToldInPart(process);
  EXPECT_EQ(run.errors.find("CAP_SYS_PTRACE") != std::string::npos, anyInPart) << run.errors;
}

// The trace is longer than a pipe.
TEST(PmhostPs, ATraceGoesToStandardErrorAlone) {
  const Finished run({"--trace", "800", "ps", "--json"});
  EXPECT_EQ(run.status, 0);
  EXPECT_GT(run.errors.size(), 65536U);
  EXPECT_GT(ObjectsOf(run.output).size(), 1U);
}

// --- what can't be read in full ----------------------------------------------------------------------------

TEST(PmhostPs, AnOrdinaryUserSeesWhatEverybodyMaySeeAndIsToldWhatIsMissing) {
  SKIP_IF(test_support::MissingRight(CAP_SETUID, "for a process of another user"));
  const Actor actor({"say", "wait"});
  const Finished run({"ps", "--json"}, BecomeNobody);
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.errors, HasSubstr("could be read in part only"));
  EXPECT_THAT(run.errors, HasSubstr("needs CAP_SYS_PTRACE: run as root\n"));
  const ProcessObjects processes = ObjectsOf(run.output);
  const Document& process = processes.at(actor.Pid());
  EXPECT_EQ(process["parent_pid"].GetInt(), ::getpid());
  EXPECT_EQ(process["session_id"].GetInt(), ::getsid(0));
  EXPECT_EQ(process["user_id"].GetInt(), 0);
  EXPECT_EQ(TextOf(process, "command_line"), "actor say wait");
  EXPECT_STREQ(process["state"].GetString(), "created");
  EXPECT_TRUE(process["start_time"].IsString());
  for (const char* name : {"unique_pid", "unique_parent_pid", "creator_pid", "unique_creator_pid",
                           "exit_time", "image_path", "working_directory", "flags"})
    EXPECT_TRUE(process[name].IsNull()) << name;
  const Document& own = processes.at(run.pmhost.StartedAs());
  EXPECT_TRUE(own["unique_pid"].IsString()) << "of its own processes it may know everything";
  EXPECT_TRUE(own["working_directory"].IsString());
}

TEST(PmhostPs, ProcessesThatTheMountOfProcHidesAreSaidToBeHidden) {
  SKIP_IF(test_support::MissingMountRights());
  for (const char* option : {"hidepid=2", "hidepid=1"}) {
    const Actor actor({"say", "wait"});
    const Finished run({"ps", "--json"}, [option] {
      if (test_support::UnshareMounts() != nullptr || ::mount("proc", "/proc", "proc", 0, option) != 0)
        ::_exit(125);
      BecomeNobody();
    });
    if (run.status == 125) GTEST_SKIP() << "/proc can't be mounted here";
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.errors, HasSubstr("needs CAP_SYS_PTRACE: run as root\n")) << option;
    const ProcessObjects processes = ObjectsOf(run.output);
    EXPECT_TRUE(processes.contains(run.pmhost.StartedAs()));
    EXPECT_EQ(processes.contains(actor.Pid()), std::string(option) == "hidepid=1")
        << "of that the pid is known";
  }
}

TEST(PmhostPs, TextsThatAreNoTextAreReadableAndHideNoProcess) {
  Actor actor({"exec", Actor::Path(), "a \xff name", "say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const Finished run({"ps", "--json"});
  EXPECT_EQ(run.status, 0);
  const ProcessObjects processes = ObjectsOf(run.output);
  const Document& process = processes.at(actor.Pid());
  EXPECT_EQ(TextOf(process, "command_line"), "a \uFFFD name say wait");
  EXPECT_EQ(TextOf(process, "image_path"), Actor::Path());
  EXPECT_TRUE(process["working_directory"].IsString());
  EXPECT_EQ(process["parent_pid"].GetInt(), ::getpid());
  EXPECT_EQ(process["user_id"].GetUint(), ::getuid());
  EXPECT_TRUE(process["unique_pid"].IsString()) << "the module can read it";
}

TEST(PmhostPs, ANameWithALineEndHidesNoProcess) {
  Actor actor({"name", "a\nb", "say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const Finished run({"ps", "--json"});
  EXPECT_EQ(run.status, 0);
  const ProcessObjects processes = ObjectsOf(run.output);
  const Document& process = processes.at(actor.Pid());
  EXPECT_EQ(TextOf(process, "command_line"), "actor name a\nb say wait");
  EXPECT_EQ(TextOf(process, "image_path"), Actor::Path());
  EXPECT_EQ(process["user_id"].GetUint(), ::getuid());
}

TEST(PmhostPs, AProcessThatHasEndedIsLeftOut) {
  Actor actor({"abandon", "say"});
  const pid_t zombie = actor.HearPid();
  while (test_support::StateOf(zombie) != 'Z') ::usleep(1000);
  const Finished run({"ps", "--json"});
  const ProcessObjects processes = ObjectsOf(run.output);
  EXPECT_TRUE(processes.contains(actor.Pid()));
  EXPECT_FALSE(processes.contains(zombie));
}

// --- for a person ------------------------------------------------------------------------------------------

// The row of a process; empty when there is none.
std::string RowOf(const std::string& output, pid_t pid) {
  char begin[16];
  std::snprintf(begin, sizeof(begin), "%7d ", pid);
  for (const std::string& line : LinesOf(output))
    if (line.starts_with(begin)) return line;
  return {};
}

TEST(PmhostPs, ColumnsStandBelowTheirHeadings) {
  Actor actor({"say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const Finished run({"ps"});
  EXPECT_EQ(run.status, 0);
  const std::string heading = LinesOf(run.output).front();
  EXPECT_THAT(heading, StartsWith("    PID    PPID     UID  USER"));
  const std::string row = RowOf(run.output, actor.Pid());
  char begin[64];
  std::snprintf(begin, sizeof(begin), "%7d %7d %7u  ", actor.Pid(), ::getpid(), ::getuid());
  EXPECT_THAT(row, StartsWith(begin));
  if (::getuid() == 0) {
    EXPECT_EQ(row.substr(heading.find("USER"), 5), "root ");
  }
  EXPECT_EQ(row.substr(heading.find("COMMAND")), "actor say wait");
  const std::string start = row.substr(heading.find("STARTED"), 19);
  EXPECT_LE(std::abs(SecondOf(start.substr(0, 10) + "T" + start.substr(11) + ".") - ::time(nullptr)), 60);
}

TEST(PmhostPs, ControlCharactersAreShownAndNotSent) {
  Actor actor({"exec", Actor::Path(), "red \x1b[31m\nbell\a", "say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  const Finished run({"ps"});
  EXPECT_THAT(RowOf(run.output, actor.Pid()), HasSubstr("red \\x1b[31m\\x0abell\\x07 say wait"));
  EXPECT_THAT(run.output, Not(HasSubstr("\x1b")));
}

// A terminal of so many columns, and what is written there.
class Terminal {
 public:
  explicit Terminal(unsigned short columns) : m_master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    if (!m_master || ::grantpt(m_master.Get()) != 0 || ::unlockpt(m_master.Get()) != 0)
      throw std::runtime_error("no terminal");
    m_other.Reset(::open(::ptsname(m_master.Get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const winsize size{.ws_row = 24, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
    if (::ioctl(m_other.Get(), TIOCSWINSZ, &size) != 0) throw std::runtime_error("TIOCSWINSZ");
    m_reader = std::thread([this] {
      char buffer[4096];
      for (ssize_t count = 0; (count = ::read(m_master.Get(), buffer, sizeof(buffer))) > 0;)
        m_text.append(buffer, static_cast<std::size_t>(count));
    });
  }
  ~Terminal() { Finish(); }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  void BecomeOutput() const { ::dup2(m_other.Get(), STDOUT_FILENO); }
  // When whoever wrote there has ended.
  const std::string& Finish() {
    m_other.Reset();
    if (m_reader.joinable()) m_reader.join();
    return m_text;
  }

 private:
  qor::UniqueFd m_master;
  qor::UniqueFd m_other;
  std::string m_text;
  std::thread m_reader;
};

std::size_t CharactersOf(const std::string& line) {
  return static_cast<std::size_t>(std::ranges::count_if(
      line, [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80; }));
}

TEST(PmhostPs, LinesAreCutAtTheWidthOfATerminalAndOnlyThere) {
  Actor actor({"exec", Actor::Path(), std::string(200, 'x'), "say", "wait"});
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  for (const bool tree : {false, true}) {
    std::vector<std::string> arguments = {"ps"};
    if (tree) arguments.emplace_back("--tree");
    EXPECT_THAT(Finished(arguments).output, HasSubstr(std::string(200, 'x') + " say wait"));
    Terminal terminal(70);
    EXPECT_EQ(Finished(arguments, [&] { terminal.BecomeOutput(); }).status, 0);
    std::string text = terminal.Finish();
    std::erase(text, '\r');
    for (const std::string& line : LinesOf(text)) EXPECT_LE(CharactersOf(line), 70U) << line;
    EXPECT_EQ(CharactersOf(RowOf(text, actor.Pid())), 70U);
  }
}

// The rows of the tree from a process on, from the column of the command on.
std::vector<std::string> BranchFrom(const std::string& output, pid_t pid, std::size_t count) {
  const std::vector<std::string> lines = LinesOf(output);
  const std::size_t column = lines.front().find("COMMAND");
  std::vector<std::string> branch;
  for (std::size_t i = 0; i < lines.size() && branch.size() < count; ++i)
    if (!branch.empty() || lines[i] == RowOf(output, pid)) branch.push_back(lines[i].substr(column));
  return branch;
}

TEST(PmhostPs, DrawsAFamilyAsATree) {
  Actor actor({"fork", "brood", "3", "mark", "0000000"});
  const pid_t parent = actor.HearPid();
  const Finished run({"ps", "--tree"});
  EXPECT_EQ(run.status, 0);
  const ProcessObjects processes = ObjectsOf(Finished({"ps", "--json"}).output);
  std::vector<pid_t> children;
  for (const auto& [pid, process] : processes)
    if (process["parent_pid"].IsInt() && process["parent_pid"].GetInt() == parent) children.push_back(pid);
  ASSERT_EQ(children.size(), 3U);
  const auto rows = BranchFrom(run.output, actor.Pid(), 5);
  ASSERT_EQ(rows.size(), 5U);
  const std::string line = "actor fork brood 3 mark ";
  // Whether it is the last child of the test depends on who else is one.
  const std::size_t branches = rows[0].find(line);
  ASSERT_NE(branches, std::string::npos) << rows[0];
  const std::string own = rows[0].substr(0, branches);
  ASSERT_TRUE(own.ends_with("├─ ") || own.ends_with("└─ ")) << rows[0];
  const std::string below =
      own.substr(0, own.size() - std::string("├─ ").size()) + (own.ends_with("├─ ") ? "│  " : "   ");
  EXPECT_EQ(rows[0], own + line + "0000000");
  EXPECT_EQ(rows[1], below + "└─ " + line + "0000000");
  for (int i = 0; i < 3; ++i) {
    char mark[16];
    std::snprintf(mark, sizeof(mark), "%07d", children[static_cast<std::size_t>(i)]);
    EXPECT_EQ(rows[static_cast<std::size_t>(i) + 2], below + "   " + (i < 2 ? "├─ " : "└─ ") + line + mark);
  }
  actor.GoOn();
  EXPECT_EQ(actor.Wait(), 0);
}

TEST(PmhostPs, TheKernelIsTheRootOfItsTree) {
  const Finished run({"ps", "--tree"});
  EXPECT_EQ(run.status, 0);
  const std::vector<std::string> lines = LinesOf(run.output);
  EXPECT_THAT(lines[1], HasSubstr("  kernel memory: "));
  std::set<int> told;
  for (const std::string& line : lines) told.insert(std::atoi(line.c_str()));
  for (std::size_t i = 2; i < lines.size(); ++i) {
    int pid = 0;
    int parent = -1;
    ASSERT_GE(std::sscanf(lines[i].c_str(), "%d %d", &pid, &parent), 1) << lines[i];
    EXPECT_EQ(lines[i].find("─ ") != std::string::npos, told.contains(parent)) << lines[i];
  }
}

TEST(PmhostPs, AReaderThatGoesAwayEndsItAndAFullDiskIsAFailure) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"ps"}, {"ps", "--json"}, {"ps", "--tree"}}) {
    Pmhost pmhost(arguments);
    pmhost.CloseOutput();
    EXPECT_EQ(pmhost.Wait(), 0);
    const Finished full(arguments, [] { ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO); });
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.errors, HasSubstr("pmhost: cannot write the output: No space left on device\n"));
  }
}

TEST(PmhostPs, HelpTellsItsOptions) {
  const Finished run({"ps", "--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.output, HasSubstr("--tree"));
}

}  // namespace
