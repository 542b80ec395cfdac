// Real processes asked for by pid and by unique pid.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "module/event_fixture.h"
#include "module/process_objects.h"
#include "zym/datetime.h"

namespace {

using namespace test_support;
using qor::PidType;
using qor::UniquePidType;

std::u16string Wide(const std::string& text) {
  const auto wide = zym::Utf8ToUtf16(text);
  return wide ? std::u16string(wide->begin(), wide->end()) : u"not UTF-8";
}

class ModuleProcessLookup : public testing::Test {
 protected:
  // The cache as the module itself asks it.
  bool CacheHas(UniquePidType uniquePid) const {
    qor::process_manager::process_cache::ProcessInformation info;
    return m_host.cache->GetByUniquePid(uniquePid, info);
  }

  ModuleHost m_host;  // goes last, and says then that the module may be unloaded
  Processes m_processes{m_host};
  const PidType m_self = static_cast<PidType>(::getpid());
};

TEST_F(ModuleProcessLookup, AChildIsAsTheKernelHasIt) {
  const std::time_t before = std::time(nullptr) - 1;  // the kernel's coarse clock is behind by a tick
  Actor actor({"say", "wait"});
  const auto pid = static_cast<PidType>(actor.HearPid());
  const process::ProcessInformation record = m_processes.RecordOf(pid);
  EXPECT_EQ(record.pid, pid);
  EXPECT_EQ(record.parentPid, m_self);
  EXPECT_EQ(record.creatorPid, m_self);
  EXPECT_EQ(record.sessionId, static_cast<std::uint32_t>(::getsid(actor.Pid())));
  EXPECT_EQ(ToText(record.imagePath), std::filesystem::canonical(Actor::Path()));
  EXPECT_EQ(ToText(record.workingDirectory), std::filesystem::current_path());
  EXPECT_EQ(record.commandLine, u"actor say wait");
  EXPECT_EQ(record.userId, ::geteuid());
  EXPECT_EQ(record.flags, 0U);
  EXPECT_EQ(record.state, static_cast<std::uint32_t>(qor::kCreated));
  EXPECT_GE(record.startTime, zym::datetime::FromUnixSeconds(before));
  EXPECT_LE(record.startTime, zym::datetime::FromUnixSeconds(std::time(nullptr)));
  EXPECT_EQ(record.exitTime, 0);
  EXPECT_EQ(qor::PidOf(record.uniquePid), pid);
  EXPECT_EQ(qor::PidOf(record.parentUniquePid), m_self);
}

TEST_F(ModuleProcessLookup, TheUniquePidOfAnImageIsOneAtEachLookAndFindsIt) {
  Actor actor({"say", "wait"});
  const auto pid = static_cast<PidType>(actor.HearPid());
  const UniquePidType uniquePid = m_processes.RecordOf(pid).uniquePid;
  EXPECT_EQ(m_processes.RecordOf(pid).uniquePid, uniquePid);
  EXPECT_TRUE(CacheHas(uniquePid));
  const process::ProcessInformation found =
      Processes::RecordOf(*m_processes.InformationByUniqueId(uniquePid));
  EXPECT_EQ(found.pid, pid);
  EXPECT_EQ(found.uniquePid, uniquePid);
  EXPECT_EQ(Processes::RecordOf(*m_processes.ControlByUniqueId(uniquePid)).uniquePid, uniquePid);
}

TEST_F(ModuleProcessLookup, AParentIsFoundByTheUniquePidThatItsChildNames) {
  Actor actor({"say", "wait"});
  const process::ProcessInformation child = m_processes.RecordOf(static_cast<PidType>(actor.HearPid()));
  EXPECT_EQ(m_processes.RecordOf(m_self).uniquePid, child.parentUniquePid);
}

TEST_F(ModuleProcessLookup, TheKernelIsThePidZero) {
  const auto kernel = m_processes.InformationOf(0);
  const process::ProcessInformation record = Processes::RecordOf(*kernel);
  EXPECT_EQ(record.pid, 0U);
  EXPECT_EQ(record.uniquePid, 0U);
  EXPECT_EQ(record.parentPid, qor::kNoPid);
  EXPECT_EQ(record.parentUniquePid, qor::kNoUniquePid);
  EXPECT_EQ(record.imagePath, u"kernel memory");
  EXPECT_EQ(record.flags, static_cast<std::uint32_t>(qor::kSystemProcess | qor::kNoBackingImage));
  EXPECT_EQ(Processes::RecordOf(*m_processes.InformationByUniqueId(0)).imagePath, u"kernel memory");
  zym::intrusive_ptr<process::IPosixProcessInformation2> posix;
  ASSERT_EQ(zym::QueryInterface(kernel, posix.Ref()), zym::ZYM_OK);
  EXPECT_EQ(posix->IsHostMountNamespace(), zym::ZYM_FALSE) << "it is in none that is known";
}

TEST_F(ModuleProcessLookup, TheIdOfAThreadIsTakenAsTheKernelTakesIt) {
  Gate started;
  Gate end;
  PidType tid = 0;
  std::thread thread([&] {
    tid = static_cast<PidType>(::syscall(SYS_gettid));
    started.Open();
    end.Wait();
  });
  started.Wait();
  const process::ProcessInformation record = m_processes.RecordOf(tid);
  EXPECT_EQ(record.pid, tid);
  EXPECT_EQ(record.parentPid, static_cast<PidType>(::getppid()));
  EXPECT_EQ(record.commandLine, m_processes.RecordOf(m_self).commandLine);
  EXPECT_EQ(qor::PidOf(record.uniquePid), tid);
  EXPECT_EQ(Processes::RecordOf(*m_processes.ControlOf(tid)).pid, tid);
  end.Open();
  thread.join();
}

// Ids that no process can have: each getter says so, and leaves what it was given alone.
TEST_F(ModuleProcessLookup, IdsThatNobodyCanHaveAreRefused) {
  const struct {
    PidType pid;
    zym::result_t result;
  } kPids[] = {{0xffffffff, zym::ZYM_E_INVALID_ARGUMENT},  // no process
               {0xfffffffe, zym::ZYM_E_NOT_FOUND},         // negative for the kernel
               {0x80000000, zym::ZYM_E_NOT_FOUND},        {0x7fffffff, zym::ZYM_E_NOT_FOUND},
               {4'194'305, zym::ZYM_E_NOT_FOUND},  // beyond every pid_max, proc(5)
               {0x7fffff, zym::ZYM_E_NOT_FOUND},   // all the bits of a unique pid
               {0x800000, zym::ZYM_E_NOT_FOUND}};  // none of them
  int nothing = 0;
  for (const auto& bad : kPids) {
    SCOPED_TRACE(testing::Message() << std::hex << bad.pid);
    auto* information = reinterpret_cast<process::IProcessInformation*>(&nothing);
    EXPECT_EQ(m_processes.manager->GetInformation(bad.pid, &information), bad.result);
    EXPECT_EQ(static_cast<void*>(information), &nothing);
    auto* control = reinterpret_cast<process::IProcessControl*>(&nothing);
    EXPECT_EQ(m_processes.manager->GetControl(bad.pid, &control), bad.result);
    EXPECT_EQ(static_cast<void*>(control), &nothing);
  }
  const UniquePidType kUniquePids[] = {0xffffffffffffffff, 0x7fffff, 0x12345678'007fffff};
  for (const UniquePidType bad : kUniquePids) {
    SCOPED_TRACE(testing::Message() << std::hex << bad);
    auto* information = reinterpret_cast<process::IProcessInformation*>(&nothing);
    EXPECT_EQ(m_processes.manager->GetInformationByUniqueId(bad, &information), zym::ZYM_E_NOT_FOUND);
    EXPECT_EQ(static_cast<void*>(information), &nothing);
    auto* control = reinterpret_cast<process::IProcessControl*>(&nothing);
    EXPECT_EQ(m_processes.manager->GetControlByUniqueId(bad, &control), zym::ZYM_E_NOT_FOUND);
    EXPECT_EQ(static_cast<void*>(control), &nothing);
  }
}

// A unique pid that the cache never gave: what counts is the pid in it.
TEST_F(ModuleProcessLookup, AUniquePidThatIsNotKnownIsLookedForByItsPid) {
  const UniquePidType unknown = 0x11111111'00000000 | m_self;
  const process::ProcessInformation record = Processes::RecordOf(*m_processes.InformationByUniqueId(unknown));
  EXPECT_EQ(record.pid, m_self);
  EXPECT_NE(record.uniquePid, unknown);
  EXPECT_TRUE(CacheHas(record.uniquePid));
}

TEST_F(ModuleProcessLookup, AProcessThatIsGoneOrAZombieIsNotFound) {
  const auto gone = static_cast<PidType>(RunTrue());
  Actor actor({"abandon", "say", "wait"});
  const pid_t zombie = actor.HearPid();
  ASSERT_EQ(::kill(zombie, SIGKILL), 0);
  ASSERT_TRUE(Eventually([&] { return StateOf(zombie) == 'Z'; }));
  for (const PidType pid : {gone, static_cast<PidType>(zombie)}) {
    zym::intrusive_ptr<process::IProcessInformation> information;
    EXPECT_EQ(m_processes.manager->GetInformation(pid, information.Ref()), zym::ZYM_E_NOT_FOUND);
    EXPECT_TRUE(
        m_host.host.tracer->Has(300, "Failed to gain IProcessInformation for pid=" + std::to_string(pid)));
  }
}

TEST_F(ModuleProcessLookup, AnObjectOutlivesItsProcessItsManagerAndTheServicesOfTheHost) {
  auto actor = std::make_unique<Actor>(std::vector<std::string>{"say", "wait"});
  const auto pid = static_cast<PidType>(actor->HearPid());
  const auto information = m_processes.InformationOf(pid);
  const auto control = m_processes.ControlOf(pid);
  m_processes.manager.Reset();
  actor.reset();
  m_host.host.locator->Clear();
  const process::ProcessInformation record = Processes::RecordOf(*information);
  EXPECT_EQ(record.commandLine, u"actor say wait");
  EXPECT_EQ(record.state, static_cast<std::uint32_t>(qor::kCreated)) << "what was true when it was made";
  EXPECT_EQ(Processes::RecordOf(*control).pid, pid);
  process::ProcessTimes times;
  EXPECT_EQ(control->GetTimes(times), zym::ZYM_E_NO_INTERFACE) << "the reader is asked for anew";
  EXPECT_EQ(static_cast<std::uint32_t>(control->Terminate()), 0x80060003U);
  EXPECT_EQ(m_host.module.canUnloadModule(), zym::ZYM_FALSE) << "the objects are alive";
}

// --- while the module watches

class WatchedProcessLookup : public EventFixture {
 protected:
  void SetUp() override {
    EventFixture::SetUp();
    if (IsSkipped()) return;
    m_processes.emplace(m_host);
    Enable();
  }
  void TearDown() override {
    EventFixture::TearDown();
    m_processes.reset();
  }

  zym::result_t CodeOf(PidType pid) const {
    zym::intrusive_ptr<process::IProcessInformation> information;
    return m_processes->manager->GetInformation(pid, information.Ref());
  }

  // A process whose end has been told: its pid, and the unique pid of its last image.
  std::pair<PidType, UniquePidType> LiveAndEnd() const {
    Actor actor({"say", "wait"});
    const pid_t pid = actor.HearPid();
    const UniquePidType uniquePid = WaitForCommand(pid, u"actor say wait");
    actor.GoOn();
    EXPECT_EQ(actor.Wait(), 0);
    WaitForEnd(uniquePid);
    return {static_cast<PidType>(pid), uniquePid};
  }

  std::optional<Processes> m_processes;
};

TEST_F(WatchedProcessLookup, EachImageOfAProcessIsFoundByItsUniquePidWhileItLives) {
  Actor actor({"say", "wait", "exec", Actor::Path(), "actor", "say", "wait"});
  const pid_t pid = actor.HearPid();
  const UniquePidType first =
      WaitForCommand(pid, u"actor say wait exec " + Wide(Actor::Path()) + u" actor say wait");
  actor.GoOn();
  actor.HearPid();
  const UniquePidType second = WaitForCommand(pid, u"actor say wait");
  EXPECT_NE(first, second);
  const process::ProcessInformation old = Processes::RecordOf(*m_processes->InformationByUniqueId(first));
  EXPECT_EQ(old.uniquePid, first);
  EXPECT_EQ(old.state, static_cast<std::uint32_t>(qor::kTerminated));
  const process::ProcessInformation now = Processes::RecordOf(*m_processes->InformationByUniqueId(second));
  EXPECT_EQ(now.commandLine, u"actor say wait");
  EXPECT_EQ(now.creatorUniquePid, first);
  EXPECT_EQ(m_processes->RecordOf(static_cast<PidType>(pid)).uniquePid, second);
  EXPECT_EQ(m_processes->ControlByUniqueId(first)->Terminate(), zym::ZYM_OK) << "it acts on the pid";
  EXPECT_EQ(actor.Wait(), 128 + SIGTERM);
}

// A second by the clock of the cache: what is asked for later may be answered or not.
TEST_F(WatchedProcessLookup, AProcessThatHasJustEndedAnswersForASecondAndThenNoMore) {
  const auto before = std::chrono::steady_clock::now();
  const auto [pid, uniquePid] = LiveAndEnd();
  zym::intrusive_ptr<process::IProcessInformation> information;
  if (m_processes->manager->GetInformation(pid, information.Ref()) == zym::ZYM_OK) {
    const process::ProcessInformation record = Processes::RecordOf(*information);
    EXPECT_EQ(record.state, static_cast<std::uint32_t>(qor::kTerminated));
    EXPECT_EQ(record.uniquePid, uniquePid);
    EXPECT_NE(record.exitTime, 0);
  } else {
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(1)) << "it has had its second";
  }
  EXPECT_TRUE(Eventually([&] { return CodeOf(pid) == zym::ZYM_E_NOT_FOUND; }));
  EXPECT_EQ(CodeOf(pid), zym::ZYM_E_NOT_FOUND);
}

TEST_F(WatchedProcessLookup, ADeadProcessIsNotFoundByItsUniquePidEvenWithinTheSecond) {
  const auto [pid, uniquePid] = LiveAndEnd();
  zym::intrusive_ptr<process::IProcessInformation> information;
  EXPECT_EQ(m_processes->manager->GetInformationByUniqueId(uniquePid, information.Ref()),
            zym::ZYM_E_NOT_FOUND);
  zym::intrusive_ptr<process::IProcessControl> control;
  EXPECT_EQ(m_processes->manager->GetControlByUniqueId(uniquePid, control.Ref()), zym::ZYM_E_NOT_FOUND);
}

// The pid goes to another process, under another unique pid; the old objects stay what they were.
TEST_F(WatchedProcessLookup, AUniquePidOfAProcessWhosePidIsGivenAgainIsTakenForItsPid) {
  auto first = std::make_unique<Actor>(std::vector<std::string>{"say", "wait"});
  const pid_t pid = first->HearPid();
  const UniquePidType old = WaitForCommand(pid, u"actor say wait");
  const auto oldInformation = m_processes->InformationOf(static_cast<PidType>(pid));
  const auto oldControl = m_processes->ControlByUniqueId(old);
  first.reset();
  Drain();
  Actor second({"fork-as", std::to_string(pid), "say", "wait"});
  const pid_t again = second.TryHearPid();
  if (again == 0) GTEST_SKIP() << "clone3(2) with set_tid needs CAP_SYS_ADMIN or CAP_CHECKPOINT_RESTORE";
  ASSERT_EQ(again, pid);
  const auto created = m_handler->WaitFor([&](const SeenEvent& event) {
    return event.pid == static_cast<PidType>(pid) && event.type == kCreate &&
           event.parentPid == static_cast<PidType>(second.Pid());
  });
  ASSERT_TRUE(created);
  EXPECT_NE(created->uniquePid, old);

  EXPECT_EQ(m_processes->RecordOf(static_cast<PidType>(pid)).uniquePid, created->uniquePid);
  const process::ProcessInformation found = Processes::RecordOf(*m_processes->InformationByUniqueId(old));
  EXPECT_EQ(found.uniquePid, created->uniquePid) << "who has the pid now, under its own";
  EXPECT_EQ(found.parentPid, static_cast<PidType>(second.Pid()));
  EXPECT_EQ(Processes::RecordOf(*oldInformation).uniquePid, old);
  EXPECT_EQ(Processes::RecordOf(*oldControl).uniquePid, old) << "it knows nothing of the new owner";
  EXPECT_EQ(oldControl->Terminate(), zym::ZYM_OK) << "and acts on it";
  EXPECT_EQ(second.Wait(), 128 + SIGTERM);
}

}  // namespace
