// What is done to one process: signals that are counted and not sent, and sent to real children.
#include "process_manager/process/process_control.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <deque>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qor_common/unique_fd.h"
#include "support/child.h"
#include "tests/process_manager/process/process_objects_fixture.h"
#include "zym/exception.h"
#include "zym/exception_to_result.h"

namespace qor::process_manager {
namespace {

using system_interceptors::process_manager::kInvisibleProcess;
using test_support::Child;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class ProcessControlTest : public ProcessObjectsTest {
 protected:
  static constexpr PidType kModulePid = 4000;

  // What the control does to the machine, in order.
  std::vector<std::string> m_done;
  std::deque<int> m_looks;   // the errno of each look; 0: the process is there; at the end, it stays there
  std::deque<int> m_sleeps;  // the errno of each sleep; at the end, it lasts as long as it should
  std::deque<int> m_kills;   // the errno of each signal; at the end, it is sent

  static int Take(std::deque<int>& errors) {
    const int error = errors.empty() ? 0 : errors.front();
    if (!errors.empty()) errors.pop_front();
    errno = error;
    return error == 0 ? 0 : -1;
  }

  // Does to the test what it would do to the machine.
  class WatchedControl : public ProcessControl {
   public:
    template <class Key>
    WatchedControl(zym::IServiceLocator* locator, const Key& key, ProcessControlTest& test)
        : ProcessControl(locator, key, kModulePid), m_test(test) {}

   protected:
    int Access(const char* path) const override {
      m_test.m_done.push_back(std::string("look ") + path);
      return Take(m_test.m_looks);
    }
    int Sleep(const std::timespec* request, std::timespec* left) const override {
      EXPECT_EQ(request->tv_sec, 0);
      m_test.m_done.push_back("sleep " + std::to_string(request->tv_nsec));
      const int result = Take(m_test.m_sleeps);
      if (result != 0) left->tv_nsec = request->tv_nsec / 2;
      return result;
    }
    int SendSignal(pid_t pid, int signo) const override {
      m_test.m_done.push_back("kill " + std::to_string(pid) + " " + std::to_string(signo));
      return Take(m_test.m_kills);
    }

   private:
    ProcessControlTest& m_test;
  };

  zym::intrusive_ptr<ProcessControl> Make(PidType pid = kPid) {
    return zym::CreateObject<WatchedControl>(Locator(), pid, *this);
  }
  // With the machine's own signals, clock and files.
  zym::intrusive_ptr<ProcessControl> MakeReal(PidType pid) {
    m_parser->processes[pid] = m_parser->processes[kPid];
    return zym::CreateObject<ProcessControl>(Locator(), pid);
  }

  // The code that the framework makes of what a construction throws; 0 when it throws nothing.
  zym::result_t CodeOfMaking(PidType pid = kPid) {
    try {
      Make(pid);
      return zym::ZYM_OK;
    } catch (...) {
      return zym::ExceptionToResult(Tracer());
    }
  }

  static std::uint32_t FlagsOf(ProcessControl& control) {
    std::uint32_t flags = 0xffff;
    EXPECT_EQ(control.GetAttributeFlags(flags), zym::ZYM_OK);
    return flags;
  }

  // How often each thing was done.
  std::ptrdiff_t Count(const std::string& what) const {
    return std::ranges::count_if(m_done, [&](const std::string& done) { return done.starts_with(what); });
  }
};

// --- construction ---

TEST_F(ProcessControlTest, KnowsItsProcessFromTheFirstLook) {
  const auto control = Make();
  zym::intrusive_ptr<IProcessInformation> first;
  zym::intrusive_ptr<IProcessInformation> second;
  ASSERT_EQ(control->GetInformation(first.Ref()), zym::ZYM_OK);
  ASSERT_EQ(control->GetInformation(second.Ref()), zym::ZYM_OK);
  EXPECT_EQ(first, second) << "the object made at construction";
  EXPECT_EQ(first->AddRef(), 4U) << "the control's, ours, and this";
  first->Release();
  EXPECT_EQ(RecordOf(*first).imagePath, u"/usr/bin/program");
  EXPECT_EQ(m_parser->reads, 1U);
  EXPECT_FALSE(Ask(kPid).effectiveUserId) << "it is not a full look";
}

// The missing parenthesis is meant.
TEST_F(ProcessControlTest, TracesItsKeyWithoutAClosingParenthesis) {
  Make();
  EXPECT_EQ(m_host->tracer->Find("ProcessControl("), "ProcessControl(77");
  m_host->tracer->Clear();
  const UniquePidType uniquePid = Fork().info.uniquePid;
  static_cast<void>(zym::CreateObject<WatchedControl>(Locator(), uniquePid, *this));
  EXPECT_EQ(m_host->tracer->Find("ProcessControl("), "ProcessControl(" + std::to_string(uniquePid));
  EXPECT_TRUE(Traced(800, "ProcessControl("));
}

TEST_F(ProcessControlTest, ByUniquePidItActsOnThePidOfTheImage) {
  const UniquePidType uniquePid = Fork().info.uniquePid;
  const auto control = zym::CreateObject<WatchedControl>(Locator(), uniquePid, *this);
  EXPECT_EQ(control->Terminate(), zym::ZYM_OK);
  EXPECT_THAT(m_done, ElementsAre("kill 200 15"));
}

// The spelling is meant.
TEST_F(ProcessControlTest, AProcessOfWhichNothingIsKnownCannotBeGotInformatioFor) {
  EXPECT_EQ(CodeOfMaking(kGone), zym::ZYM_E_NOT_FOUND);
  EXPECT_THAT(
      m_host->tracer->Find("Cannot get informatio for process 78"),
      MatchesRegex(
          R"(Expression failed\. Cannot get informatio for process 78: 0x8000004c \(Not found\)\. )"
          R"(At process_manager/process/process_control\.cpp\([0-9]+\) Expression failed: 0x8000004c )"
          R"(\(Not found\)\. At process_manager/process/process_information\.cpp\([0-9]+\) )"))
      << "with what it is nested in";
}

struct Need {
  const char* name;
  const char* text;
  void (*fail)(test_support::FakeProcfsParser&, test_support::FakeHost&,
               test_support::FakeAppSettingsProvider&, test_support::FakePathMatcherFactory&);
  zym::result_t code = zym::ZYM_E_LOCKED;
};

class ProcessControlNeeds : public ProcessControlTest, public testing::WithParamInterface<Need> {};

TEST_P(ProcessControlNeeds, WhatFailsIsNamedAndItsCodeGiven) {
  GetParam().fail(*m_parser, *m_host, *m_settings, *m_matchers);
  EXPECT_EQ(CodeOfMaking(), GetParam().code);
  EXPECT_TRUE(Traced(300, GetParam().text));
}

TEST_P(ProcessControlNeeds, OfTheModulesOwnProcessItIsNotAsked) {
  m_parser->processes[kModulePid] = m_parser->processes[kPid];
  GetParam().fail(*m_parser, *m_host, *m_settings, *m_matchers);
  EXPECT_EQ(CodeOfMaking(kModulePid), zym::ZYM_OK);
}

INSTANTIATE_TEST_SUITE_P(
    Of, ProcessControlNeeds,
    testing::Values(
        Need{"TheSettings", "Cannot get app settings",
             [](auto&, auto&, auto& settings, auto&) { settings.result = zym::ZYM_E_LOCKED; }},
        Need{"TheSettingsProvider", "Cannot get app settings",
             [](auto&, auto& host, auto&, auto&) { host.locator->FailWith(0x345e2eb8, zym::ZYM_E_LOCKED); }},
        Need{"TheMatcher", "Cannot create path matcher",
             [](auto&, auto&, auto&, auto& matchers) { matchers.result = zym::ZYM_E_LOCKED; }},
        Need{"AMatcherBesideTheSuccess", "Cannot create path matcher",
             [](auto&, auto&, auto&, auto& matchers) { matchers.givesNone = true; }, zym::ZYM_E_NO_INTERFACE},
        Need{"TheMatcherFactory", "Cannot create path matcher",
             [](auto&, auto& host, auto&, auto&) { host.locator->FailWith(0x38514cf7, zym::ZYM_E_LOCKED); }}),
    [](const auto& need) { return need.param.name; });

// --- invisible processes ---

TEST_F(ProcessControlTest, AProcessIsVisibleUnlessSomethingHidesIt) {
  EXPECT_EQ(FlagsOf(*Make()), 0U);
  EXPECT_FALSE(m_host->tracer->Has("is invisible"));
}

TEST_F(ProcessControlTest, TheModulesOwnProcessAndItsChildrenAreInvisibleWhateverTheSettingsSay) {
  m_settings->result = zym::ZYM_E_LOCKED;
  m_parser->processes[kModulePid] = m_parser->processes[kPid];
  m_parser->processes[kPid].parentPid = kModulePid;
  for (const PidType pid : {kModulePid, kPid}) {
    m_host->tracer->Clear();
    EXPECT_EQ(FlagsOf(*Make(pid)), 1U) << pid;
    EXPECT_TRUE(Traced(800,
                       "ProcessControl: is invisible: process '/usr/bin/program' excluded (self or child "
                       "process)"));
  }
}

TEST_F(ProcessControlTest, TheRealModulePidIsThatOfTheProcessThatLoadedIt) {
  const PidType self = static_cast<PidType>(::getpid());
  EXPECT_EQ(ProcessControl::ModulePid(), self);
  EXPECT_EQ(FlagsOf(*MakeReal(self)), kInvisibleProcess);
  const Child child = Child::Forked([self] {
    // A fork of the process that loaded the module is not that process.
    return ProcessControl::ModulePid() == self;
  });
  m_parser->processes[child.Pid()].parentPid = self;
  EXPECT_EQ(FlagsOf(*zym::CreateObject<ProcessControl>(Locator(), child.Pid())), kInvisibleProcess);
}

TEST_F(ProcessControlTest, AnImageThatTheSettingsExcludeIsInvisible) {
  m_parser->processes[kPid].imagePath = "/usr/bin/pr\u00f6gram";
  m_settings->settings.excludedProcesses = {"/usr/bin/pr\u00f6gram"};
  EXPECT_EQ(FlagsOf(*Make()), 1U);
  EXPECT_TRUE(
      Traced(800, "ProcessControl: is invisible: process '/usr/bin/pr\u00f6gram' excluded by settings"));
}

TEST_F(ProcessControlTest, TheDefaultExclusionPathsHideNoProcess) {
  m_parser->processes[kPid].imagePath = m_settings->settings.exclusionPaths.front();
  EXPECT_EQ(FlagsOf(*Make()), 0U);
}

TEST_F(ProcessControlTest, AMatcherThatFailsHidesNothing) {
  class FailingMatcher : public zym::object::Ifaces<IPathMatcher> {
   public:
    zym::result_t Match(const NativePath&) override { return zym::ZYM_E_UNEXPECTED; }
    zym::result_t MatchName(const NativePath&) override { return zym::ZYM_OK; }
  };
  class Factory : public test_support::FakePathMatcherFactory {
   public:
    zym::result_t CreatePathMatcher(const PathList&, IPathMatcher** matcher) override {
      *matcher = zym::CreateObject<FailingMatcher>().Detach();
      return zym::ZYM_OK;
    }
  };
  m_host->locator->Add(zym::CreateObject<Factory>(), IPathMatcherFactory::kIid);
  EXPECT_EQ(FlagsOf(*Make()), 0U);
}

TEST_F(ProcessControlTest, FlagsAreAddedAndRemovedInOneStep) {
  const auto control = Make();
  EXPECT_EQ(control->UpdateAttributeFlags(0b0110, 0), zym::ZYM_OK);
  EXPECT_EQ(FlagsOf(*control), 0b0110U);
  EXPECT_EQ(control->UpdateAttributeFlags(0b1000, 0b0010), zym::ZYM_OK);
  EXPECT_EQ(FlagsOf(*control), 0b1100U);
  EXPECT_EQ(control->UpdateAttributeFlags(0, 0), zym::ZYM_OK);
  EXPECT_EQ(FlagsOf(*control), 0b1100U);
  EXPECT_TRUE(Traced(800, "UpdateAttributeFlags() add=8, remove=2"));
  EXPECT_TRUE(Traced(800, "GetAttributeFlags() <- attributeFlags=12"));
}

TEST_F(ProcessControlTest, AFlagThatIsAddedAndRemovedIsInvalidAndChangesNothing) {
  const auto control = Make();
  EXPECT_EQ(static_cast<std::uint32_t>(control->UpdateAttributeFlags(1, 1)), 0x80000046U);
  EXPECT_EQ(control->UpdateAttributeFlags(6, 4), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(FlagsOf(*control), 0U);
  const std::string text = m_host->tracer->Find("(add & remove) == 0");
  EXPECT_THAT(text,
              MatchesRegex(R"(process_manager/process/process_control\.cpp:[0-9]+\(\(add & remove\) == 0\),)"
                           R"(\(bool\) failed: result = false)"));
  EXPECT_TRUE(Traced(300, text));
}

TEST_F(ProcessControlTest, NoUpdateOfFlagsIsLost) {
  const auto control = Make();
  constexpr int kThreads = 8;
  std::latch together(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&, mine = 1U << i] {
      together.arrive_and_wait();
      for (int round = 0; round < 1000; ++round) {
        EXPECT_EQ(control->UpdateAttributeFlags(mine, 0), zym::ZYM_OK);
        std::uint32_t flags = 0;
        control->GetAttributeFlags(flags);
        EXPECT_NE(flags & mine, 0U);
        EXPECT_EQ(control->UpdateAttributeFlags(mine << kThreads, mine), zym::ZYM_OK);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(FlagsOf(*control), 0xff00U);
}

// --- signals ---

TEST_F(ProcessControlTest, TerminateSendsSigtermAndDoesNotWait) {
  EXPECT_EQ(Make()->Terminate(), zym::ZYM_OK);
  EXPECT_THAT(m_done, ElementsAre("kill 77 15"));
  EXPECT_TRUE(Traced(800, "Terminate() "));
  EXPECT_TRUE(Traced(800, "Kill() signo=15"));
}

TEST_F(ProcessControlTest, TerminateOnPidZeroSendsNothing) {
  const auto kernel = Make(0);
  EXPECT_EQ(static_cast<std::uint32_t>(kernel->Terminate()), 0x80000046U);
  EXPECT_TRUE(Traced(800, "Terminate: Ignore attempt to terminate kernel process"));
  EXPECT_EQ(static_cast<std::uint32_t>(kernel->TerminateAndWait(1000)), 0x80000046U);
  EXPECT_TRUE(Traced(800, "TerminateAndWait: Ignore attempt to terminate kernel process"));
  EXPECT_THAT(m_done, IsEmpty());
}

TEST_F(ProcessControlTest, ASignalThatCannotBeSentGivesTheMappedErrno) {
  const auto control = Make();
  for (const auto& [error, result] : {std::pair{ESRCH, 0x80060003U}, {EPERM, 0x80000045U}}) {
    m_host->tracer->Clear();
    m_kills = {error};
    EXPECT_EQ(static_cast<std::uint32_t>(control->Terminate()), result);
    EXPECT_TRUE(Traced(800, "Kill: Failed to send signal 15 to process: 77"));
  }
}

TEST_F(ProcessControlTest, AProcessThatHasEndedWithinTheFirstPollYieldsZero) {
  m_looks = {ENOENT};
  EXPECT_EQ(Make()->TerminateAndWait(0), zym::ZYM_OK);
  EXPECT_THAT(m_done, ElementsAre("kill 77 15", "look /proc/77/status"));
  EXPECT_TRUE(Traced(800, "TerminateAndWait() timeout=0"));
}

TEST_F(ProcessControlTest, TerminateAndWaitOfZeroChecksOnceSleepsOnceAndEscalates) {
  EXPECT_EQ(Make()->TerminateAndWait(0), zym::ZYM_OK);
  EXPECT_THAT(m_done, ElementsAre("kill 77 15", "look /proc/77/status", "sleep 10000000", "kill 77 9"));
  EXPECT_TRUE(Traced(500, "TerminateAndWait: Cannot wait for exit, send SIGKILL"));
  EXPECT_TRUE(Traced(800, "Kill() signo=9"));
}

TEST_F(ProcessControlTest, LooksOnceMoreThanTheTimeoutHasStepsOfTenMilliseconds) {
  const struct {
    unsigned timeout;
    std::ptrdiff_t looks;
    std::ptrdiff_t sleeps;
  } kCases[] = {{9, 1, 1}, {10, 2, 1}, {19, 2, 1}, {100, 11, 10}, {1005, 101, 100}};
  for (const auto& of : kCases) {
    m_done.clear();
    EXPECT_EQ(Make()->TerminateAndWait(of.timeout), zym::ZYM_OK);
    EXPECT_EQ(Count("look"), of.looks) << of.timeout;
    EXPECT_EQ(Count("sleep 10000000"), of.sleeps) << of.timeout;
    EXPECT_EQ(m_done.back(), "kill 77 9");
  }
}

TEST_F(ProcessControlTest, StopsToWaitWhenTheProcessIsGone) {
  m_looks = {0, 0, ENOENT};
  EXPECT_EQ(Make()->TerminateAndWait(1000), zym::ZYM_OK);
  EXPECT_EQ(Count("sleep"), 2);
  EXPECT_EQ(Count("kill 77 9"), 0);
}

TEST_F(ProcessControlTest, ALookThatIsInterruptedIsDoneAgainAtOnceAndDoesNotCount) {
  m_looks = {EINTR, EINTR, 0, EINTR, 0};
  EXPECT_EQ(Make()->TerminateAndWait(10), zym::ZYM_OK);
  EXPECT_EQ(Count("look"), 5);
  EXPECT_EQ(Count("sleep"), 1);
}

TEST_F(ProcessControlTest, ALookThatFailsOtherwiseEndsTheWaitAtOnce) {
  m_looks = {EACCES};
  EXPECT_EQ(Make()->TerminateAndWait(1000), zym::ZYM_OK);
  EXPECT_THAT(m_done, ElementsAre("kill 77 15", "look /proc/77/status", "kill 77 9"));
}

TEST_F(ProcessControlTest, ASleepThatIsInterruptedGoesOnWithWhatIsLeft) {
  m_sleeps = {EINTR, EINTR};
  EXPECT_EQ(Make()->TerminateAndWait(10), zym::ZYM_OK);
  EXPECT_THAT(m_done, ElementsAre("kill 77 15", "look /proc/77/status", "sleep 10000000", "sleep 5000000",
                                  "sleep 2500000", "look /proc/77/status", "kill 77 9"));
}

TEST_F(ProcessControlTest, ATerminationThatCannotBeAskedForIsNotWaitedFor) {
  m_kills = {EPERM};
  EXPECT_EQ(Make()->TerminateAndWait(1000), zym::ZYM_E_ACCESS_DENIED);
  EXPECT_THAT(m_done, ElementsAre("kill 77 15"));
  EXPECT_THAT(m_host->tracer->Find("(Kill(15))"),
              MatchesRegex(R"(process_manager/process/process_control\.cpp:[0-9]+\(Kill\(15\)\),)"
                           R"(\(ZYM_SUCCEEDED\(_result\)\) failed: result = 0x80000045 \(Access denied\))"));
  EXPECT_TRUE(Traced(300, "(Kill(15))"));
}

TEST_F(ProcessControlTest, ASecondSignalThatCannotBeSentGivesItsCode) {
  m_kills = {0, ESRCH};
  EXPECT_EQ(static_cast<std::uint32_t>(Make()->TerminateAndWait(0)), 0x80060003U);
  EXPECT_TRUE(Traced(300, "(Kill(9)),(ZYM_SUCCEEDED(_result)) failed: result = 0x80060003"));
}

// A child that is reaped as soon as it has ended, as a parent should.
class ReapedChild {
 public:
  template <class Prepare>
  explicit ReapedChild(Prepare prepare) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
    const qor::UniqueFd read(ready[0]);
    qor::UniqueFd write(ready[1]);
    m_pid = ::fork();
    if (m_pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (!prepare() || ::write(ready[1], "!", 1) != 1) ::_exit(1);
      for (;;) ::pause();
    }
    write.Reset();
    char byte = 0;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1) << "the child didn't begin";
    m_reaper = std::thread([this] { ::waitpid(m_pid, &m_status, 0); });
  }
  ~ReapedChild() {
    if (m_reaper.joinable()) m_reaper.join();
  }
  ReapedChild(const ReapedChild&) = delete;
  ReapedChild& operator=(const ReapedChild&) = delete;

  PidType Pid() const { return static_cast<PidType>(m_pid); }
  // The signal that did.
  int EndedBy() {
    m_reaper.join();
    return WIFSIGNALED(m_status) ? WTERMSIG(m_status) : -1;
  }

 private:
  pid_t m_pid = -1;
  int m_status = 0;
  std::thread m_reaper;
};

constexpr unsigned kLong = 60'000;  // milliseconds

TEST_F(ProcessControlTest, ARealProcessThatObeysIsGoneWithoutASigkill) {
  ReapedChild child([] { return true; });
  EXPECT_EQ(MakeReal(child.Pid())->TerminateAndWait(kLong), zym::ZYM_OK);
  EXPECT_EQ(child.EndedBy(), SIGTERM);
  EXPECT_FALSE(m_host->tracer->Has("send SIGKILL"));
}

TEST_F(ProcessControlTest, AProcessThatIgnoresSigtermGetsSigkillAfterTheTimeout) {
  ReapedChild child([] { return std::signal(SIGTERM, SIG_IGN) != SIG_ERR; });
  EXPECT_EQ(MakeReal(child.Pid())->TerminateAndWait(50), zym::ZYM_OK);
  EXPECT_EQ(child.EndedBy(), SIGKILL);
  EXPECT_TRUE(Traced(500, "TerminateAndWait: Cannot wait for exit, send SIGKILL"));
}

TEST_F(ProcessControlTest, AZombieIsThereUntilItsParentCollectsIt) {
  const Child child = Child::Forked();
  const auto control = MakeReal(child.Pid());
  child.Kill();
  EXPECT_EQ(control->TerminateAndWait(20), zym::ZYM_OK);
  EXPECT_TRUE(Traced(500, "send SIGKILL")) << "and a zombie takes every signal";
}

TEST_F(ProcessControlTest, ARealProcessThatIsGoneGivesTheErrnoOfKill) {
  Child child = Child::Forked();
  const auto control = MakeReal(child.Pid());
  child.End();
  EXPECT_EQ(static_cast<std::uint32_t>(control->Terminate()), 0x80060003U);
  EXPECT_EQ(static_cast<std::uint32_t>(control->TerminateAndWait(kLong)), 0x80060003U);
}

// --- counters ---

TEST_F(ProcessControlTest, TimesAreWholeSecondsForTheDivisionComesFirst) {
  const std::int64_t ticks = ::sysconf(_SC_CLK_TCK);
  m_parser->userTicks = 19 * ticks / 10;
  m_parser->kernelTicks = 3 * ticks;
  ProcessTimes times;
  EXPECT_EQ(Make()->GetTimes(times), zym::ZYM_OK);
  EXPECT_EQ(times.userTime, 10'000'000U) << "of 1.9 seconds";
  EXPECT_EQ(times.kernelTime, 30'000'000U);
  EXPECT_TRUE(Traced(800, "ProcessControl::GetTimes()"));
}

TEST_F(ProcessControlTest, TheKernelHasNoTimesAndNoCounters) {
  const auto kernel = Make(0);
  const std::uint64_t reads = m_parser->reads;
  ProcessTimes times{.kernelTime = 1, .userTime = 2};
  EXPECT_EQ(kernel->GetTimes(times), zym::ZYM_OK);
  EXPECT_EQ(times.kernelTime, 0U);
  EXPECT_EQ(times.userTime, 0U);
  ProcessIoCounters counters{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(kernel->GetIoCounters(counters), zym::ZYM_OK);
  EXPECT_EQ(counters.readOperations + counters.writeOperations + counters.otherOperations +
                counters.readBytes + counters.writeBytes + counters.otherBytes,
            0U);
  EXPECT_EQ(m_parser->reads, reads);
}

TEST_F(ProcessControlTest, IoCountersAreThoseOfTheSystemCalls) {
  m_parser->io = {.rchar = 1, .wchar = 2, .syscr = 3, .syscw = 4, .read_bytes = 5, .write_bytes = 6};
  ProcessIoCounters counters{9, 9, 9, 9, 9, 9};
  EXPECT_EQ(Make()->GetIoCounters(counters), zym::ZYM_OK);
  EXPECT_EQ(counters.readOperations, 3U);
  EXPECT_EQ(counters.writeOperations, 4U);
  EXPECT_EQ(counters.otherOperations, 0U);
  EXPECT_EQ(counters.readBytes, 1U);
  EXPECT_EQ(counters.writeBytes, 2U);
  EXPECT_EQ(counters.otherBytes, 0U);
  EXPECT_TRUE(m_host->tracer->Has(800,
                                  "ProcessControl::GetIoCounters("
                                  "system_interceptors::process_manager::ProcessIoCounters&)"));
}

TEST_F(ProcessControlTest, TheLayoutsOfTheRecordsAreThoseOfTheInterface) {
  static_assert(sizeof(ProcessTimes) == 16 && offsetof(ProcessTimes, userTime) == 8);
  static_assert(
      sizeof(ProcessIoCounters) == 48 && offsetof(ProcessIoCounters, writeOperations) == 8 &&
      offsetof(ProcessIoCounters, otherOperations) == 16 && offsetof(ProcessIoCounters, readBytes) == 24 &&
      offsetof(ProcessIoCounters, writeBytes) == 32 && offsetof(ProcessIoCounters, otherBytes) == 40);
  EXPECT_EQ(offsetof(ProcessTimes, kernelTime), 0U);
}

// The name of the other operation in the message of the second is meant.
TEST_F(ProcessControlTest, CountersOfAProcessThatIsGoneFailWithTheReadersCode) {
  const auto control = Make();
  m_parser->processes.erase(kPid);
  ProcessTimes times{.kernelTime = 1, .userTime = 2};
  EXPECT_EQ(control->GetTimes(times), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(times.userTime, 2U);
  EXPECT_THAT(
      m_host->tracer->Find("Failed procfs->GetStat(77, stat)"),
      HasSubstr("(procfs->GetStat(m_pid, stat)),(ZYM_SUCCEEDED(_result)) failed: result = 0x8000004c"));
  m_host->tracer->Clear();
  ProcessIoCounters counters{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(control->GetIoCounters(counters), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(counters.readOperations, 1U);
  EXPECT_THAT(
      m_host->tracer->Find("Failed procfs->GetStat(77, stat)"),
      HasSubstr("(procfs->GetIOCounters(m_pid, io)),(ZYM_SUCCEEDED(_result)) failed: result = 0x8000004b"));
}

TEST_F(ProcessControlTest, CountersNeedTheReaderOfProc) {
  const auto control = Make();
  m_host->locator->FailWith(procfs::IParser::kIid, zym::ZYM_E_LOCKED);
  ProcessTimes times;
  ProcessIoCounters counters;
  for (const bool io : {false, true}) {
    m_host->tracer->Clear();
    EXPECT_EQ(io ? control->GetIoCounters(counters) : control->GetTimes(times), zym::ZYM_E_LOCKED);
    const std::string text = m_host->tracer->Find("Failed to load procfs::IParser");
    EXPECT_THAT(text, HasSubstr("(zym::GetInterface(GetServiceLocator(), procfs.Ref())),"));
    EXPECT_TRUE(Traced(300, text));
  }
}

TEST_F(ProcessControlTest, SomeOperationsAreNotImplemented) {
  const auto control = Make();
  zym::datetime_t time = 7;
  EXPECT_EQ(static_cast<std::uint32_t>(control->GetExitTime(time)), 0x80000043U);
  EXPECT_EQ(time, 7);
  EXPECT_TRUE(Traced(800, "GetExitTime() <- not implemented"));
  int none = 0;
  auto& counters = reinterpret_cast<system_interceptors::process_manager::ProcessVmCounters&>(none);
  EXPECT_EQ(static_cast<std::uint32_t>(control->GetVmCounters(counters)), 0x80000043U);
  EXPECT_TRUE(Traced(800, "GetVmCounters() <- not implemented"));
  bool critical = true;
  EXPECT_EQ(static_cast<std::uint32_t>(control->IsSystemCriticalProcess(critical)), 0x80000043U);
  EXPECT_TRUE(critical);
  EXPECT_TRUE(Traced(800, "IsSystemCriticalProcess() <- not implemented, use SCO instead"));
}

TEST_F(ProcessControlTest, HasBothInterfaces) {
  const auto control = Make();
  zym::intrusive_ptr<IProcessAttributes> attributes;
  ASSERT_EQ(zym::QueryInterface(control, attributes.Ref()), zym::ZYM_OK);
  EXPECT_EQ(attributes->UpdateAttributeFlags(2, 0), zym::ZYM_OK);
  EXPECT_EQ(FlagsOf(*control), 2U);
}

}  // namespace
}  // namespace qor::process_manager
