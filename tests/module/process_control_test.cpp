// Real processes that are ended and asked for what they used.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "module/process_objects.h"
#include "support/actor.h"
#include "support/child.h"
#include "support/child_process.h"
#include "support/own_process.h"
#include "support/rights.h"
#include "support/threads.h"

namespace {

using namespace test_support;
using qor::PidType;

constexpr unsigned kLong = 60'000;  // milliseconds; nothing waits so long
constexpr const char* kEscalation = "TerminateAndWait: Cannot wait for exit, send SIGKILL";

class ModuleProcessControl : public testing::Test {
 protected:
  bool Escalated() const { return m_host.host.tracer->Has(500, kEscalation); }

  ModuleHost m_host;
  Processes m_processes{m_host};
  const PidType m_self = static_cast<PidType>(::getpid());
};

TEST_F(ModuleProcessControl, AProcessThatEndsIsWaitedFor) {
  Actor actor({"say", "wait"});
  const auto control = m_processes.ControlOf(static_cast<PidType>(actor.HearPid()));
  int status = 0;
  Call reaper([&] { status = actor.Wait(); });
  EXPECT_EQ(control->TerminateAndWait(kLong), zym::ZYM_OK);
  reaper.Join();
  EXPECT_EQ(status, 128 + SIGTERM);
  EXPECT_FALSE(Escalated());
  EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(actor.Pid())));
}

TEST_F(ModuleProcessControl, TerminateAsksAndDoesNotWait) {
  Actor actor({"say", "wait"});
  const auto control = m_processes.ControlOf(static_cast<PidType>(actor.HearPid()));
  EXPECT_EQ(control->Terminate(), zym::ZYM_OK);
  EXPECT_EQ(actor.Wait(), 128 + SIGTERM);
}

TEST_F(ModuleProcessControl, AProcessThatIgnoresSigtermGetsSigkillAfterTheTimeout) {
  Actor actor({"ignore", std::to_string(SIGTERM), "say", "wait"});
  const auto control = m_processes.ControlOf(static_cast<PidType>(actor.HearPid()));
  EXPECT_EQ(control->TerminateAndWait(50), zym::ZYM_OK);
  EXPECT_EQ(actor.Wait(), 128 + SIGKILL);
  EXPECT_TRUE(Escalated());
}

TEST_F(ModuleProcessControl, AZombieOfAnotherParentIsNotGoneAndTakesEverySignal) {
  Actor actor({"abandon", "say", "wait"});
  const pid_t pid = actor.HearPid();
  const auto control = m_processes.ControlOf(static_cast<PidType>(pid));
  EXPECT_EQ(Processes::RecordOf(*control).parentPid, static_cast<PidType>(actor.Pid()));
  EXPECT_EQ(control->TerminateAndWait(20), zym::ZYM_OK);
  EXPECT_TRUE(Escalated());
  EXPECT_TRUE(Eventually([&] { return StateOf(pid) == 'Z'; }));
  EXPECT_EQ(control->Terminate(), zym::ZYM_OK);
  EXPECT_EQ(control->TerminateAndWait(0), zym::ZYM_OK);
  process::ProcessTimes times;
  EXPECT_EQ(control->GetTimes(times), zym::ZYM_OK) << "what it used is kept for its parent";
}

TEST_F(ModuleProcessControl, AProcessThatIsGoneGivesTheErrnoOfKillAndTheCodesOfTheReader) {
  auto actor = std::make_unique<Actor>(std::vector<std::string>{"say", "wait"});
  const auto control = m_processes.ControlOf(static_cast<PidType>(actor->HearPid()));
  actor.reset();
  EXPECT_EQ(static_cast<std::uint32_t>(control->Terminate()), 0x80060003U);
  EXPECT_EQ(static_cast<std::uint32_t>(control->TerminateAndWait(kLong)), 0x80060003U);
  process::ProcessTimes times{.kernelTime = 1, .userTime = 2};
  EXPECT_EQ(control->GetTimes(times), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(times.userTime, 2U);
  process::ProcessIoCounters counters{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(control->GetIoCounters(counters), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(counters.readBytes, 4U);
}

TEST_F(ModuleProcessControl, TheKernelIsNeitherEndedNorCounted) {
  const auto kernel = m_processes.ControlOf(0);
  EXPECT_EQ(kernel->Terminate(), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(kernel->TerminateAndWait(kLong), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_FALSE(m_host.host.tracer->Has("Kill()"));
  process::ProcessTimes times{.kernelTime = 1, .userTime = 2};
  EXPECT_EQ(kernel->GetTimes(times), zym::ZYM_OK);
  EXPECT_EQ(times.kernelTime + times.userTime, 0U);
  process::ProcessIoCounters counters{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(kernel->GetIoCounters(counters), zym::ZYM_OK);
  EXPECT_EQ(counters.readBytes + counters.otherBytes, 0U);
}

// Of this process: it has used more with each look, and whole seconds alone are told.
TEST_F(ModuleProcessControl, CountersAreThoseOfTheProcess) {
  const auto control = m_processes.ControlOf(m_self);
  process::ProcessIoCounters before;
  process::ProcessIoCounters after;
  EXPECT_EQ(control->GetIoCounters(before), zym::ZYM_OK);
  EXPECT_EQ(control->GetIoCounters(after), zym::ZYM_OK);
  EXPECT_GT(after.readOperations, before.readOperations) << "the first look was a read itself";
  EXPECT_GT(after.readBytes, before.readBytes);
  EXPECT_EQ(after.otherOperations + after.otherBytes, 0U);
  process::ProcessTimes times;
  EXPECT_EQ(control->GetTimes(times), zym::ZYM_OK);
  EXPECT_EQ(times.userTime % 10'000'000, 0U);
  EXPECT_EQ(times.kernelTime % 10'000'000, 0U);
}

TEST_F(ModuleProcessControl, ThisProcessAndItsChildrenAreInvisibleAndOthersByTheSettings) {
  Actor actor({"abandon", "say", "wait"});
  const auto grandchild = static_cast<PidType>(actor.HearPid());
  EXPECT_EQ(Processes::FlagsOf(m_processes.ControlOf(m_self)), 1U);
  EXPECT_EQ(Processes::FlagsOf(m_processes.ControlOf(static_cast<PidType>(actor.Pid()))), 1U);
  EXPECT_EQ(Processes::FlagsOf(m_processes.ControlOf(grandchild)), 0U);
  EXPECT_EQ(Processes::FlagsOf(m_processes.ControlOf(0)), 0U);
  m_processes.settings->settings.excludedProcesses = {std::filesystem::canonical(Actor::Path())};
  EXPECT_EQ(Processes::FlagsOf(m_processes.ControlOf(grandchild)), 1U);
  m_processes.settings->result = zym::ZYM_E_LOCKED;
  zym::intrusive_ptr<process::IProcessControl> control;
  EXPECT_EQ(m_processes.manager->GetControl(grandchild, control.Ref()), zym::ZYM_E_LOCKED);
  EXPECT_EQ(Processes::FlagsOf(m_processes.ControlOf(m_self)), 1U) << "for whom they aren't asked";
}

TEST_F(ModuleProcessControl, FlagsLiveWithTheControlAlone) {
  const auto control = m_processes.ControlOf(m_self);
  zym::intrusive_ptr<process::IProcessAttributes> attributes;
  ASSERT_EQ(zym::QueryInterface(control, attributes.Ref()), zym::ZYM_OK);
  EXPECT_EQ(attributes->UpdateAttributeFlags(4, 1), zym::ZYM_OK);
  EXPECT_EQ(attributes->UpdateAttributeFlags(1, 1), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(Processes::FlagsOf(control), 4U);
  EXPECT_EQ(Processes::FlagsOf(m_processes.ControlOf(m_self)), 1U);
}

// Nothing tells the control that its process has gone.
TEST_F(ModuleProcessControl, ActsOnTheNewOwnerOfItsPidOfWhichItKnowsNothing) {
  auto first = std::make_unique<Actor>(std::vector<std::string>{"say", "wait"});
  const pid_t pid = first->HearPid();
  const auto control = m_processes.ControlOf(static_cast<PidType>(pid));
  first.reset();
  EXPECT_EQ(static_cast<std::uint32_t>(control->Terminate()), 0x80060003U);
  Actor second({"fork-as", std::to_string(pid), "say", "wait"});
  if (second.TryHearPid() == 0)
    GTEST_SKIP() << "clone3(2) with set_tid needs CAP_SYS_ADMIN or CAP_CHECKPOINT_RESTORE";
  process::ProcessTimes times;
  EXPECT_EQ(control->GetTimes(times), zym::ZYM_OK);
  process::ProcessIoCounters counters;
  EXPECT_EQ(control->GetIoCounters(counters), zym::ZYM_OK);
  EXPECT_EQ(Processes::RecordOf(*control).commandLine, u"actor say wait");
  int status = 0;
  Call reaper([&] { status = second.Wait(); });
  EXPECT_EQ(control->TerminateAndWait(kLong), zym::ZYM_OK);
  reaper.Join();
  EXPECT_EQ(status, 128 + SIGTERM) << "as its child did, of the same pid";
}

// --- as an ordinary user

// One line for each thing that isn't as it should be.
class Findings {
 public:
  void Expect(const char* what, zym::result_t result, zym::result_t expected) {
    if (result != expected) m_text << what << " gave 0x" << std::hex << result << "\n";
  }
  void Add(const std::string& text) { m_text << text << "\n"; }
  [[nodiscard]] std::string Text() const { return m_text.str(); }

 private:
  std::ostringstream m_text;
};

// The system calls themselves: the C library would tell its threads, which a fork doesn't have.
std::string BecomeAnOrdinaryUser() {
  constexpr long kNobody = 65534;
  const bool done = ::syscall(SYS_setgroups, 0, nullptr) == 0 &&
                    ::syscall(SYS_setresgid, kNobody, kNobody, kNobody) == 0 &&
                    ::syscall(SYS_setresuid, kNobody, kNobody, kNobody) == 0;
  return done ? "" : "the user can't be changed";
}

TEST_F(ModuleProcessControl, AProcessOfSomeoneElseIsNotEndedAndOnesOwnIs) {
  SKIP_IF(MissingRight(CAP_SETUID, "to become someone else"));
  Actor others({"say", "wait"});
  const auto pid = static_cast<PidType>(others.HearPid());
  const auto control = m_processes.ControlOf(pid);
  const std::string wrong = RunInChild([&] {
    if (std::string missing = BecomeAnOrdinaryUser(); !missing.empty()) return missing;
    Findings findings;
    findings.Expect("Terminate", control->Terminate(), zym::ZYM_E_ACCESS_DENIED);
    findings.Expect("TerminateAndWait", control->TerminateAndWait(kLong), zym::ZYM_E_ACCESS_DENIED);
    process::ProcessIoCounters counters;
    findings.Expect("GetIoCounters", control->GetIoCounters(counters), zym::ZYM_E_UNSPECIFIED);
    process::ProcessTimes times;
    findings.Expect("GetTimes, which everyone may see", control->GetTimes(times), zym::ZYM_OK);
    // One that the cache doesn't know can't be looked into.
    zym::intrusive_ptr<process::IProcessInformation> information;
    findings.Expect("GetInformation", m_processes.manager->GetInformation(1, information.Ref()),
                    zym::ZYM_E_NOT_FOUND);

    const Child own = Child::Shell("/bin/sh");
    zym::intrusive_ptr<process::IProcessControl> controlOfOwn;
    findings.Expect("GetControl of one's own", m_processes.manager->GetControl(own.Pid(), controlOfOwn.Ref()),
                    zym::ZYM_OK);
    if (controlOfOwn) findings.Expect("Terminate of one's own", controlOfOwn->Terminate(), zym::ZYM_OK);
    if (!Eventually([&] { return StateOf(static_cast<pid_t>(own.Pid())) == 'Z'; }))
      findings.Add("one's own did not end");
    return findings.Text();
  });
  EXPECT_EQ(wrong, "");
  EXPECT_EQ(StateOf(others.Pid()), 'S') << "it waits as before";
}

// What can't be looked into is left out, and the rest is there.
TEST_F(ModuleProcessControl, ASnapshotOfAnOrdinaryUserHoldsOnesOwnProcessesAndTheKernel) {
  SKIP_IF(MissingRight(CAP_SETUID, "to become someone else"));
  const std::string wrong = RunInChild([&] {
    if (std::string missing = BecomeAnOrdinaryUser(); !missing.empty()) return missing;
    Findings findings;
    const Child own = Child::Shell("/bin/sh");
    bool hasOwn = false;
    bool hasOthers = false;
    PidType last = qor::kNoPid;
    for (const auto& information : Processes::Walk(*m_processes.Enumerate())) {
      const process::ProcessInformation record = Processes::RecordOf(*information);
      last = record.pid;
      hasOwn = hasOwn || record.pid == own.Pid();
      hasOthers = hasOthers || record.pid == 1;
    }
    if (!hasOwn) findings.Add("one's own is not there");
    if (hasOthers) findings.Add("the first process can be looked into");
    if (last != 0) findings.Add("the kernel is not the last");
    return findings.Text();
  });
  EXPECT_EQ(wrong, "");
}

}  // namespace
