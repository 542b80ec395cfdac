// What the program finds is told by a shell that is spawned for it: it writes its own facts to a pipe, and
// stays alive until its standard input ends.
#include "qor_common/spawn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qor_common/descriptor_notifier.h"
#include "qor_common/unique_fd.h"
#include "support/child_process.h"
#include "support/rights.h"
#include "support/temp_directory.h"

namespace qor {
namespace {

using test_support::FailSystemCall;
using test_support::ReadTextFile;
using test_support::ReadToEnd;
using test_support::RunInChild;

struct Pipe {
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
    read.Reset(ends[0]);
    write.Reset(ends[1]);
  }
  UniqueFd read;
  UniqueFd write;
};

// A spawn of "/bin/sh -c script".
SpawnContext Shell(const std::string& script) {
  SpawnContext context;
  context.program = "/bin/sh";
  context.arguments = {"-c", script};
  context.environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
  return context;
}

// What the script writes, all of it.
std::string Output(SpawnContext context) {
  Pipe out;
  context.standardOutput = out.write.Get();
  const zym::result_t result = SecureDaemonSpawn(context);
  out.write.Reset();
  if (result != zym::ZYM_OK) return "result " + std::to_string(static_cast<std::uint32_t>(result));
  return ReadToEnd(out.read.Get());
}

std::string Output(const std::string& script) {
  return Output(Shell(script));
}

// A running program whose facts can be read by its pid.
class Running {
 public:
  explicit Running(SpawnContext context) {
    Pipe in;
    Pipe out;
    context.standardInput = in.read.Get();
    context.standardOutput = out.write.Get();
    m_result = SecureDaemonSpawn(context);
    out.write.Reset();
    m_input = std::move(in.write);
    m_output = std::move(out.read);
    char text[32] = "";
    if (m_result == zym::ZYM_OK && ::read(m_output.Get(), text, sizeof(text) - 1) > 0)
      m_pid = std::atoi(text);
  }
  ~Running() {
    m_input.Reset();
    ReadToEnd(m_output.Get());
  }

  [[nodiscard]] pid_t Pid() const { return m_pid; }
  [[nodiscard]] std::string File(const std::string& name) const {
    return ReadTextFile("/proc/" + std::to_string(m_pid) + "/" + name);
  }
  // A line of the status file, without its name and blanks.
  [[nodiscard]] std::string Status(const std::string& name) const {
    std::istringstream lines(File("status"));
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind(name + ":", 0) != 0) continue;
      line.erase(0, line.find_first_not_of(" \t", name.size() + 1));
      return line.substr(0, line.find_last_not_of(" \t") + 1);
    }
    return "none";
  }
  // Number and target of each of its descriptors.
  [[nodiscard]] std::map<int, std::string> Descriptors() const {
    std::map<int, std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(m_pid) + "/fd"))
      result[std::stoi(entry.path().filename())] = std::filesystem::read_symlink(entry).string();
    return result;
  }

 private:
  zym::result_t m_result;
  UniqueFd m_input;
  UniqueFd m_output;
  pid_t m_pid = -1;
};

// Tells its pid and waits for the end of its input.
SpawnContext Waiting() {
  return Shell("echo $$; read line");
}

TEST(SecureDaemonSpawn, TheProgramLeadsASessionOfItsOwn) {
  const Running program(Waiting());
  ASSERT_GT(program.Pid(), 0);
  EXPECT_EQ(::getsid(program.Pid()), program.Pid());
  EXPECT_EQ(::getpgid(program.Pid()), program.Pid());
  EXPECT_NE(::getsid(0), program.Pid());
}

TEST(SecureDaemonSpawn, TheProgramIsNoChildOfItsStarter) {
  const Running program(Waiting());
  ASSERT_GT(program.Pid(), 0);
  EXPECT_NE(program.Status("PPid"), std::to_string(::getpid()));
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD) << "nothing is left to be waited for";
}

TEST(SecureDaemonSpawn, TheProgramsParentIsTheSubreaper) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              ::prctl(PR_SET_CHILD_SUBREAPER, 1);
              const pid_t subreaper = ::getpid();
              return RunInChild([subreaper]() -> std::string {
                const Running program(Waiting());
                const std::string parent = program.Status("PPid");
                return parent == std::to_string(subreaper) ? "" : "parent " + parent;
              });
            }),
            "");
}

TEST(SecureDaemonSpawn, TheProgramSurvivesItsStarter) {
  Pipe out;
  Pipe in;
  EXPECT_EQ(RunInChild([&]() -> std::string {
              SpawnContext context = Shell("read line; echo alive");
              context.standardInput = in.read.Get();
              context.standardOutput = out.write.Get();
              return SecureDaemonSpawn(context) == zym::ZYM_OK ? "" : "spawn";
            }),
            "");
  out.write.Reset();
  ASSERT_EQ(::write(in.write.Get(), "\n", 1), 1);
  EXPECT_EQ(ReadToEnd(out.read.Get()), "alive\n");
}

// --- descriptors ---

TEST(SecureDaemonSpawn, TheProgramHasTheStandardStreamsAndNothingElse) {
  const UniqueFd low(::open("/dev/zero", O_RDONLY));
  const UniqueFd high(::fcntl(low.Get(), F_DUPFD, 900));
  const Running program(Waiting());
  ASSERT_GT(program.Pid(), 0);
  const auto descriptors = program.Descriptors();
  ASSERT_EQ(descriptors.size(), 3U);
  EXPECT_EQ(descriptors.at(0).rfind("pipe:", 0), 0U);
  EXPECT_EQ(descriptors.at(1).rfind("pipe:", 0), 0U);
  EXPECT_EQ(descriptors.at(2), "/dev/null");
}

TEST(SecureDaemonSpawn, AKernelWithoutCloseRangeMakesNoDifference) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              if (const auto missing = FailSystemCall(SYS_close_range, ENOSYS); !missing.empty())
                return missing;
              const UniqueFd low(::open("/dev/zero", O_RDONLY));
              const UniqueFd high(::fcntl(low.Get(), F_DUPFD, 900));
              const rlimit fewer{.rlim_cur = 500, .rlim_max = 1000};
              ::setrlimit(RLIMIT_NOFILE, &fewer);
              const Running program(Waiting());
              return std::to_string(program.Descriptors().size());
            }),
            "3");
}

TEST(SecureDaemonSpawn, StreamsThatAreNotGivenAreTheNullDevice) {
  EXPECT_EQ(Output("readlink /proc/$$/fd/0 /proc/$$/fd/2; cat"), "/dev/null\n/dev/null\n");
}

TEST(SecureDaemonSpawn, StreamsMayBeGivenInEachOthersPlaces) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              Pipe in;
              Pipe out;
              // Standard input of the program is descriptor 1 here, its output 0, and its errors 0 too.
              const std::string text = "swapped";
              if (::write(in.write.Get(), text.data(), text.size()) < 0) return "write";
              in.write.Reset();
              const UniqueFd result(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 100));
              ::dup2(in.read.Get(), 1);
              ::dup2(out.write.Get(), 0);
              out.write.Reset();
              SpawnContext context = Shell("cat; echo ' and errors' >&2");
              context.standardInput = 1;
              context.standardOutput = 0;
              context.standardError = 0;
              if (SecureDaemonSpawn(context) != zym::ZYM_OK) return "spawn";
              ::close(0);
              return ReadToEnd(out.read.Get());
            }),
            "swapped and errors\n");
}

TEST(SecureDaemonSpawn, AGivenDescriptorStaysOpenThoughItClosesOnExec) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              Pipe out;
              ::dup3(out.write.Get(), 1, O_CLOEXEC);  // in its place already, and marked
              out.write.Reset();
              SpawnContext context = Shell("echo here");
              context.standardOutput = 1;
              if (SecureDaemonSpawn(context) != zym::ZYM_OK) return "spawn";
              ::close(1);
              return ReadToEnd(out.read.Get());
            }),
            "here\n");
}

TEST(SecureDaemonSpawn, ADescriptorThatIsNotOpenIsAnInvalidArgument) {
  for (std::optional<int> SpawnContext::*const stream :
       {&SpawnContext::standardInput, &SpawnContext::standardOutput, &SpawnContext::standardError}) {
    SpawnContext context = Shell("exit 0");
    context.*stream = 12345;
    EXPECT_EQ(SecureDaemonSpawn(context), zym::ZYM_E_INVALID_ARGUMENT);
    context.*stream = -1;
    EXPECT_EQ(SecureDaemonSpawn(context), zym::ZYM_E_INVALID_ARGUMENT);
  }
}

// --- the rest of what it inherits ---

TEST(SecureDaemonSpawn, NoSignalIsBlockedAndTwoAreIgnored) {
  EXPECT_EQ(
      RunInChild([]() -> std::string {
        sigset_t blocked;
        ::sigfillset(&blocked);
        ::pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
        // cat, since a shell arranges its own signals
        SpawnContext context;
        context.program = "/bin/cat";
        context.arguments = {"/proc/self/status"};
        std::istringstream lines(Output(context));
        std::string facts;
        for (std::string line; std::getline(lines, line);) {
          if (line.rfind("SigBlk", 0) == 0 || line.rfind("SigIgn", 0) == 0 || line.rfind("SigCgt", 0) == 0)
            facts += line + "\n";
        }
        return facts;
      }),
      // SIGHUP is bit 0, SIGCHLD bit 16.
      "SigBlk:\t0000000000000000\nSigIgn:\t0000000000010001\nSigCgt:\t0000000000000000\n");
}

TEST(SecureDaemonSpawn, TheCallersOwnSignalMaskIsKept) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              sigset_t before;
              ::sigemptyset(&before);
              ::sigaddset(&before, SIGUSR1);
              ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
              Output("exit 0");
              sigset_t after;
              ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
              for (int signal = 1; signal < SIGRTMIN; ++signal)
                if (::sigismember(&after, signal) != (signal == SIGUSR1)) return std::to_string(signal);
              return {};
            }),
            "");
}

std::atomic<int> g_handled{0};

TEST(SecureDaemonSpawn, TheStarterGetsNoSignalOfTheProcessBetween) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              struct sigaction action {};
              action.sa_handler = [](int) { ++g_handled; };
              ::sigaction(SIGCHLD, &action, nullptr);
              if (Output("echo x") != "x\n") return "output";
              return g_handled == 0 ? "" : "the process between raised SIGCHLD";
            }),
            "");
}

TEST(SecureDaemonSpawn, TheUmaskIsNoneAndTheDirectoryIsTheRoot) {
  const Running program(Waiting());
  ASSERT_GT(program.Pid(), 0);
  EXPECT_EQ(program.Status("Umask"), "0000");
  EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(program.Pid()) + "/cwd"), "/");
}

TEST(SecureDaemonSpawn, RunsInTheGivenDirectory) {
  SpawnContext context = Shell("pwd");
  context.workingDirectory = "/tmp";
  EXPECT_EQ(Output(context), "/tmp\n");
}

TEST(SecureDaemonSpawn, ARelativeProgramIsMeantFromTheCallersDirectory) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              const test_support::TempDirectory directory;
              test_support::WriteTextFile(directory / "program", "#!/bin/sh\necho ran in `pwd`\n", 0755);
              if (::chdir(directory.Path().c_str()) != 0) return "chdir";
              SpawnContext context;
              context.program = "./program";
              return Output(context);
            }),
            "ran in /\n");
}

TEST(SecureDaemonSpawn, ARelativeProgramOfARemovedDirectoryIsAResultAndNoException) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              const test_support::TempDirectory directory;
              const std::string program = directory.Write("program", "#!/bin/sh\n");
              const std::string gone = directory.Path() + "/gone";
              if (::chmod(program.c_str(), 0755) != 0 || ::mkdir(gone.c_str(), 0755) != 0) return "files";
              if (::chdir(gone.c_str()) != 0 || ::rmdir(gone.c_str()) != 0) return "gone";
              SpawnContext context;
              context.program = "../program";
              return Output(context);
            }),
            "result " + std::to_string(0x80010102U));
}

// --- arguments and environment ---

TEST(SecureDaemonSpawn, PassesArgumentsAndEnvironmentAndNothingElse) {
  ::setenv("OF_THE_STARTER", "1", 1);
  SpawnContext context;
  context.program = "/usr/bin/env";
  context.environment = {"A=1", "B=two words"};
  EXPECT_EQ(Output(context), "A=1\nB=two words\n");
  ::unsetenv("OF_THE_STARTER");

  SpawnContext cat;
  cat.program = "/bin/cat";
  cat.arguments = {"/proc/self/cmdline", "--"};
  EXPECT_EQ(Output(cat), std::string("/bin/cat\0/proc/self/cmdline\0--\0", 31));
}

TEST(SecureDaemonSpawn, TakesFiftyStringsOfEachList) {
  SpawnContext context;
  context.program = "/bin/sh";
  context.arguments = {"-c", "echo $#"};
  for (int i = 0; i < 100; ++i) context.arguments.push_back("x");
  // Of the fifty, three are the shell's own: its option, the script, and the script's name.
  EXPECT_EQ(Output(context), "47\n");

  SpawnContext environment;
  environment.program = "/usr/bin/env";
  std::string expected;
  for (int i = 0; i < 100; ++i) {
    environment.environment.push_back("V" + std::to_string(i) + "=");
    if (i < 50) expected += environment.environment.back() + "\n";
  }
  EXPECT_EQ(Output(environment), expected);
}

TEST(SecureDaemonSpawn, CutsStringsAt4095Bytes) {
  SpawnContext context;
  context.program = "/usr/bin/env";
  context.environment = {"A=" + std::string(4093, 'x'), "B=" + std::string(4094, 'y')};
  EXPECT_EQ(Output(context), "A=" + std::string(4093, 'x') + "\nB=" + std::string(4093, 'y') + "\n");
}

// --- ids ---

class SpawnIds : public testing::Test {
 protected:
  void SetUp() override { SKIP_IF(test_support::MissingRight(CAP_SETUID, "to take other ids")); }
};

TEST_F(SpawnIds, TheProgramHasTheGivenIds) {
  SpawnContext context = Waiting();
  context.userId = 12345;
  context.groupId = 23456;
  context.groups = std::vector<gid_t>{7, 8};
  const Running program(context);
  ASSERT_GT(program.Pid(), 0);
  EXPECT_EQ(program.Status("Uid"), "12345\t12345\t12345\t12345");
  EXPECT_EQ(program.Status("Gid"), "23456\t23456\t23456\t23456");
  EXPECT_EQ(program.Status("Groups"), "7 8");
  EXPECT_EQ(program.Status("CapEff"), "0000000000000000");
}

TEST_F(SpawnIds, AUserWithoutGroupsHasNone) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              const gid_t own[] = {4, 5};
              if (::syscall(SYS_setgroups, 2, own) != 0) return "setgroups";
              SpawnContext context = Waiting();
              context.userId = 12345;
              const Running program(context);
              return program.Status("Groups");
            }),
            "");
}

TEST_F(SpawnIds, WithoutIdsTheProgramKeepsTheStarters) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              const gid_t own[] = {4, 5};
              if (::syscall(SYS_setgroups, 2, own) != 0) return "setgroups";
              const Running program(Waiting());
              return program.Status("Uid") + "; " + program.Status("Groups");
            }),
            "0\t0\t0\t0; 4 5");
}

// The C library's own setresuid would wait in the child for threads that are not there.
TEST_F(SpawnIds, ThreadsOfTheStarterDontMatter) {
  DescriptorNotifier stop;
  std::thread other([&] { stop.Reset(); });
  SpawnContext context = Waiting();
  context.userId = 12345;
  context.groupId = 23456;
  const Running program(context);
  EXPECT_GT(program.Pid(), 0);
  stop.Notify();
  other.join();
}

// --- failures ---

TEST(SecureDaemonSpawn, WhatIsNoExecutableFileIsNotFound) {
  const test_support::TempDirectory directory;
  test_support::WriteTextFile(directory / "text", "#!/bin/sh\n", 0644);
  for (const std::string& program : {std::string("/none"), std::string(""), directory / "text",
                                     directory.Path(), std::string("/dev/null")}) {
    SpawnContext context;
    context.program = program;
    EXPECT_EQ(SecureDaemonSpawn(context), zym::ZYM_E_NOT_FOUND) << program;
  }
}

zym::result_t ResultWith(long number, int error,
                         std::optional<test_support::Argument> argument = std::nullopt) {
  if (!FailSystemCall(number, error, argument).empty()) return -1;
  return SecureDaemonSpawn(Shell("exit 0"));
}

std::string Hex(zym::result_t result) {
  std::ostringstream text;
  text << std::hex << static_cast<std::uint32_t>(result);
  return text.str();
}

TEST(SecureDaemonSpawn, AForkThatFailsGivesItsError) {
  EXPECT_EQ(RunInChild([] { return Hex(ResultWith(SYS_clone, EAGAIN)); }), "8006000b");
}

TEST(SecureDaemonSpawn, AFailureOfTheProcessBetweenGivesItsError) {
  // Only the second fork asks for a signal at the end.
  EXPECT_EQ(RunInChild([] { return Hex(ResultWith(SYS_clone, ENOMEM, {{0, SIGCHLD}})); }), "80000041");
  EXPECT_EQ(RunInChild([] { return Hex(ResultWith(SYS_setsid, EPERM)); }), "80000045");
  EXPECT_EQ(RunInChild([] { return Hex(ResultWith(SYS_rt_sigaction, EINVAL, {{0, SIGHUP}})); }), "80000046");
}

TEST(SecureDaemonSpawn, AStarterThatIgnoresItsChildrenIsToldTheTruth) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              ::signal(SIGCHLD, SIG_IGN);
              if (const auto result = SecureDaemonSpawn(Shell("exit 0")); result != zym::ZYM_OK)
                return Hex(result);
              return Hex(ResultWith(SYS_setsid, EPERM));
            }),
            "80000045");
}

// The exit status of a program that failed behind the last fork, as its new parent sees it.
std::string ExitStatus(const std::function<void()>& prepare, const SpawnContext& context) {
  return RunInChild([&]() -> std::string {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    // The process between ignores its children, so that one which ends before it leaves no status. With that
    // call passed over there is always one.
    if (const auto missing = FailSystemCall(SYS_rt_sigaction, 0, {{0, SIGCHLD}}); !missing.empty())
      return missing;
    prepare();
    if (const auto result = SecureDaemonSpawn(context); result != zym::ZYM_OK) return Hex(result);
    int status = 0;
    if (::waitpid(-1, &status, 0) < 0) return "no child";
    return std::to_string(WEXITSTATUS(status));
  });
}

TEST(SecureDaemonSpawn, AProgramThatCantStartEndsWithTheErrno) {
  SpawnContext context = Shell("exit 0");
  context.workingDirectory = "/none";
  EXPECT_EQ(ExitStatus([] {}, context), std::to_string(ENOENT));

  const test_support::TempDirectory directory;
  test_support::WriteTextFile(directory / "noise", "\x7f not a program", 0755);
  SpawnContext noise;
  noise.program = directory / "noise";
  EXPECT_EQ(ExitStatus([] {}, noise), std::to_string(ENOEXEC));
}

TEST_F(SpawnIds, IdsThatCantBeSetEndTheProgramWithTheErrno) {
  SpawnContext context = Shell("exit 0");
  context.userId = 12345;
  context.groupId = 23456;
  for (const long number : {SYS_setgroups, SYS_setresgid, SYS_setresuid})
    EXPECT_EQ(ExitStatus([number] { FailSystemCall(number, EPERM); }, context), std::to_string(EPERM))
        << number;
}

TEST_F(SpawnIds, IdsThatWereNotTakenEndTheProgramWithTheirOwnStatus) {
  SpawnContext user = Shell("exit 0");
  user.userId = 12345;
  EXPECT_EQ(ExitStatus([] { FailSystemCall(SYS_setresuid, 0); }, user), "135");
  SpawnContext group = Shell("exit 0");
  group.groupId = 23456;
  EXPECT_EQ(ExitStatus([] { FailSystemCall(SYS_setresgid, 0); }, group), "132");
  // The saved and the effective id alone: the others are right already.
  EXPECT_EQ(ExitStatus(
                [] {
                  ::syscall(SYS_setresuid, 12345, 12345, 0);
                  FailSystemCall(SYS_setresuid, 0);
                  FailSystemCall(SYS_setgroups, 0);
                },
                user),
            "137");
  EXPECT_EQ(ExitStatus(
                [] {
                  ::syscall(SYS_setresgid, 23456, 0, 0);
                  FailSystemCall(SYS_setresgid, 0);
                },
                group),
            "133");
}

TEST(SecureDaemonSpawn, LeavesNothingOpenInTheStarter) {
  const auto before = test_support::OpenDescriptors();
  Output("exit 0");
  EXPECT_EQ(test_support::OpenDescriptors(), before);
}

}  // namespace
}  // namespace qor
