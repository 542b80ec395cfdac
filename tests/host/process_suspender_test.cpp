// The suspender of pmhost, with real processes and each of its means.
#include "host/services/process_suspender.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/counting.h"
#include "support/fresh_process.h"
#include "support/memory_actor.h"
#include "support/object_count.h"
#include "support/threads.h"

namespace {

using pmhost::ProcessSuspender;
using pmhost::StopMeans;
using test_support::Counting;
using test_support::Eventually;
using test_support::MemoryActor;

constexpr std::uint32_t kTimeout = 60'000;  // milliseconds
constexpr std::uint32_t kNobody = 4'000'000;

std::string ReadProcFile(std::uint32_t pid, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
  return {std::istreambuf_iterator<char>(file), {}};
}

class Suspender : public testing::Test {
 protected:
  explicit Suspender(std::vector<StopMeans> means = {StopMeans::kSignals})
      : m_suspender(zym::CreateObject<ProcessSuspender>(std::move(means))) {}

  const test_support::ObjectCount m_objects;
  zym::intrusive_ptr<ProcessSuspender> m_suspender;
};

// --- by each of the means ----------------------------------------------------------------------------------

struct Means {
  const char* name;
  StopMeans means;
  const char* missing;
};
void PrintTo(const Means& means, std::ostream* out) {
  *out << means.name;
}

class SuspenderBy : public Suspender, public testing::WithParamInterface<Means> {
 protected:
  SuspenderBy() : Suspender({GetParam().means}) { EXPECT_EQ(m_suspender->Start(), zym::ZYM_OK); }

  // Skips where the machine doesn't have the means.
  void SetUp() override {
    const zym::result_t result = m_suspender->SuspendProcess(m_child.Pid(), kTimeout);
    if (result == zym::ZYM_E_NOT_SUPPORTED) GTEST_SKIP() << GetParam().missing;
    ASSERT_EQ(result, zym::ZYM_OK);
  }

  Counting m_child;
};

TEST_P(SuspenderBy, AProcessStandsStillUntilItIsReleased) {
  EXPECT_TRUE(m_child.IsStill());
  EXPECT_EQ(m_suspender->ReleaseProcess(m_child.Pid()), zym::ZYM_OK);
  EXPECT_TRUE(m_child.IsRunning());
}

TEST_P(SuspenderBy, SuspendedTwiceItIsReleasedByTheSecondRelease) {
  EXPECT_EQ(m_suspender->SuspendProcess(m_child.Pid(), kTimeout), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->ReleaseProcess(m_child.Pid()), zym::ZYM_OK);
  EXPECT_TRUE(m_child.IsStill());
  EXPECT_EQ(m_suspender->ReleaseProcess(m_child.Pid()), zym::ZYM_OK);
  EXPECT_TRUE(m_child.IsRunning());
  EXPECT_EQ(m_suspender->ReleaseProcess(m_child.Pid()), zym::ZYM_E_NOT_FOUND);
}

TEST_P(SuspenderBy, TheControlGroupIsWhatItWasAndNoneIsLeft) {
  const std::string during = ReadProcFile(m_child.Pid(), "cgroup");
  EXPECT_EQ(m_suspender->ReleaseProcess(m_child.Pid()), zym::ZYM_OK);
  EXPECT_EQ(ReadProcFile(m_child.Pid(), "cgroup"),
            ReadProcFile(static_cast<std::uint32_t>(::getpid()), "cgroup"));
  const std::string name = "pmhost-" + std::to_string(::getpid()) + "-" + std::to_string(m_child.Pid());
  EXPECT_EQ(during.find(name) != std::string::npos, GetParam().means != StopMeans::kSignals);
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator it("/sys/fs/cgroup", error), end; !error && it != end;
       it.increment(error))
    EXPECT_NE(it->path().filename(), name);
}

TEST_P(SuspenderBy, StoppingTheServiceReleasesEverything) {
  Counting other;
  EXPECT_EQ(m_suspender->SuspendProcess(other.Pid(), kTimeout), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->SuspendProcess(other.Pid(), kTimeout), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->Stop(), zym::ZYM_OK);
  EXPECT_TRUE(m_child.IsRunning());
  EXPECT_TRUE(other.IsRunning());
  EXPECT_EQ(m_suspender->ReleaseProcess(other.Pid()), zym::ZYM_E_NOT_FOUND);
}

TEST_P(SuspenderBy, TheLastReleaseOfTheServiceReleasesEverything) {
  m_suspender.Reset();
  EXPECT_TRUE(m_child.IsRunning());
}

TEST_P(SuspenderBy, AProcessThatIsKilledMeanwhileLeavesNothing) {
  const std::uint32_t pid = m_child.Pid();
  if (GetParam().means == StopMeans::kFreezer)
    m_child.Kill(SIGKILL);  // it ends when it is let go
  else
    m_child.End();
  EXPECT_EQ(m_suspender->ReleaseProcess(pid), zym::ZYM_OK);
  m_child.End();
  std::error_code error;
  const std::string name = "pmhost-" + std::to_string(::getpid()) + "-" + std::to_string(pid);
  for (std::filesystem::recursive_directory_iterator it("/sys/fs/cgroup", error), end; !error && it != end;
       it.increment(error))
    EXPECT_NE(it->path().filename(), name);
}

TEST_P(SuspenderBy, TwoProcessesDoNotWaitForEachOther) {
  Counting other;
  EXPECT_EQ(m_suspender->SuspendProcess(other.Pid(), kTimeout), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->ReleaseProcess(m_child.Pid()), zym::ZYM_OK);
  EXPECT_TRUE(m_child.IsRunning());
  EXPECT_TRUE(other.IsStill());
  EXPECT_EQ(m_suspender->ReleaseProcess(other.Pid()), zym::ZYM_OK);
}

INSTANTIATE_TEST_SUITE_P(
    AnyMeans, SuspenderBy,
    testing::Values(Means{"Freezer", StopMeans::kFreezer,
                          "needs a writable freezer control group of version 1: run as root"},
                    Means{"Signals", StopMeans::kSignals, "signals are always there"}),
    [](const testing::TestParamInfo<Means>& row) { return std::string(row.param.name); });

// --- the service -------------------------------------------------------------------------------------------

TEST_F(Suspender, SuspendsNothingUnlessItIsStarted) {
  Counting child;
  EXPECT_EQ(m_suspender->SuspendProcess(child.Pid(), kTimeout), zym::ZYM_E_INVALID_STATE);
  EXPECT_EQ(m_suspender->Start(), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->Stop(), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->SuspendProcess(child.Pid(), kTimeout), zym::ZYM_E_INVALID_STATE);
  EXPECT_TRUE(child.IsRunning());
  EXPECT_EQ(m_suspender->Stop(), zym::ZYM_FALSE);
}

TEST_F(Suspender, StartedTwiceItStopsWithTheSecondStop) {
  Counting child;
  ASSERT_EQ(m_suspender->Start(), zym::ZYM_OK);
  ASSERT_EQ(m_suspender->Start(), zym::ZYM_OK);
  ASSERT_EQ(m_suspender->SuspendProcess(child.Pid(), kTimeout), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->Stop(), zym::ZYM_OK);
  EXPECT_TRUE(child.IsStill());
  EXPECT_EQ(m_suspender->Stop(), zym::ZYM_OK);
  EXPECT_TRUE(child.IsRunning());
}

TEST_F(Suspender, RefusesItselfAndNobody) {
  ASSERT_EQ(m_suspender->Start(), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->SuspendProcess(0, kTimeout), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_suspender->SuspendProcess(0xffffffff, kTimeout), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_suspender->SuspendProcess(static_cast<std::uint32_t>(::getpid()), kTimeout),
            zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_suspender->SuspendProcess(kNobody, kTimeout), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_suspender->ReleaseProcess(kNobody), zym::ZYM_E_NOT_FOUND);
}

// A process inside vfork(2) sleeps so that no signal stops it until its child is done.
TEST_F(Suspender, AProcessThatDoesNotStopInTimeIsLeftAsItWas) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::close(ends[1]);
    char byte = 0;
    // With memory of its own: a sanitizer's vfork(2) would not wait.
    const auto grandchild = static_cast<pid_t>(::syscall(SYS_clone, CLONE_VFORK | SIGCHLD, 0, 0, 0, 0));
    if (grandchild == 0) {
      static_cast<void>(!::read(ends[0], &byte, 1));  // until the test closes its end
      ::_exit(0);
    }
    ::_exit(::waitpid(grandchild, nullptr, 0) == grandchild ? 7 : 1);
  }
  ::close(ends[0]);
  const auto state = [&] {
    const std::string stat = ReadProcFile(static_cast<std::uint32_t>(pid), "stat");
    return stat[stat.rfind(')') + 2];
  };
  ASSERT_TRUE(Eventually([&] { return state() == 'D'; }));
  ASSERT_EQ(m_suspender->Start(), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->SuspendProcess(static_cast<std::uint32_t>(pid), 20), zym::ZYM_E_TIMEOUT);
  EXPECT_EQ(m_suspender->ReleaseProcess(static_cast<std::uint32_t>(pid)), zym::ZYM_E_NOT_FOUND);
  ::close(ends[1]);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid) << "it isn't stopped";
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(Suspender, AProcessThatSomebodyElseHasStoppedStaysSo) {
  Counting child;
  child.Stop();
  ASSERT_EQ(m_suspender->Start(), zym::ZYM_OK);
  ASSERT_EQ(m_suspender->SuspendProcess(child.Pid(), kTimeout), zym::ZYM_OK);
  ASSERT_EQ(m_suspender->ReleaseProcess(child.Pid()), zym::ZYM_OK);
  EXPECT_TRUE(child.IsStill());
  child.Kill(SIGCONT);
  EXPECT_TRUE(child.IsRunning());
}

TEST_F(Suspender, MeansThatTheMachineDoesNotHaveArePassedOver) {
  const auto suspender = zym::CreateObject<ProcessSuspender>();
  Counting child;
  ASSERT_EQ(suspender->Start(), zym::ZYM_OK);
  ASSERT_EQ(suspender->SuspendProcess(child.Pid(), kTimeout), zym::ZYM_OK) << "signals are always there";
  EXPECT_TRUE(child.IsStill());
  EXPECT_EQ(suspender->ReleaseProcess(child.Pid()), zym::ZYM_OK);
  EXPECT_TRUE(child.IsRunning());
}

TEST_F(Suspender, ManyThreadsMaySuspendAndReleaseOneProcess) {
  Counting child;
  ASSERT_EQ(m_suspender->Start(), zym::ZYM_OK);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int j = 0; j < 50; ++j) {
        EXPECT_EQ(m_suspender->SuspendProcess(child.Pid(), kTimeout), zym::ZYM_OK);
        std::uint8_t byte = 0;
        EXPECT_LT(m_suspender->ReadMemory(child.Pid(), 1, {&byte, &byte + 1}), 0);
        EXPECT_EQ(m_suspender->ReleaseProcess(child.Pid()), zym::ZYM_OK);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(child.IsRunning());
}

// --- reads -------------------------------------------------------------------------------------------------

class SuspenderReads : public Suspender {
 protected:
  SuspenderReads() {
    EXPECT_EQ(m_suspender->Start(), zym::ZYM_OK);
    EXPECT_EQ(m_suspender->SuspendProcess(m_actor.Pid(), kTimeout), zym::ZYM_OK);
  }
  zym::result_t Read(std::uint64_t address, std::vector<std::uint8_t>& bytes) {
    return m_suspender->ReadMemory(m_actor.Pid(), address, {bytes.data(), bytes.data() + bytes.size()});
  }

  MemoryActor m_actor;
};

TEST_F(SuspenderReads, WhatTheProcessToldOfItself) {
  for (const char* name : {"anonymous", "low", "file", "shared", "across"}) {
    std::vector<std::uint8_t> bytes(m_actor.Get(name).length);
    EXPECT_EQ(Read(m_actor.Get(name).address, bytes), zym::ZYM_OK) << name;
    EXPECT_EQ(bytes, m_actor.Get(name).bytes) << name;
  }
  std::vector<std::uint8_t> nothing;
  EXPECT_EQ(Read(m_actor.Get("unmapped").address, nothing), zym::ZYM_OK);
}

TEST_F(SuspenderReads, AGuardedPageAsTheMemFileGivesIt) {
  const auto& guarded = m_actor.Get("guarded");
  const auto plain = test_support::ReadMemFile(m_actor.Pid(), guarded.address, guarded.length);
  std::vector<std::uint8_t> bytes(guarded.length);
  EXPECT_EQ(Read(guarded.address, bytes), plain.empty() ? zym::ZYM_E_MEDIA_ERROR : zym::ZYM_OK);
  if (!plain.empty()) {
    EXPECT_EQ(bytes, guarded.bytes);
  }
}

TEST_F(SuspenderReads, APartWhereAMappingEnds) {
  const auto& edge = m_actor.Get("edge");
  std::vector<std::uint8_t> bytes(2 * edge.length, 0xee);
  EXPECT_EQ(Read(edge.address, bytes), zym::ZYM_FALSE);
  bytes.resize(edge.length);
  EXPECT_EQ(bytes, edge.bytes);
}

TEST_F(SuspenderReads, NothingWhereNothingIsMapped) {
  std::vector<std::uint8_t> bytes(16);
  EXPECT_EQ(Read(m_actor.Get("unmapped").address, bytes), zym::ZYM_E_MEDIA_ERROR);
}

TEST_F(SuspenderReads, NothingOfAProcessThatIsNotSuspendedOrHasEnded) {
  std::vector<std::uint8_t> bytes(16);
  const std::uint32_t pid = m_actor.Pid();
  m_actor.End();
  EXPECT_EQ(m_suspender->ReadMemory(pid, 0x20000000, {bytes.data(), bytes.data() + 16}),
            zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_suspender->ReleaseProcess(pid), zym::ZYM_OK);
  const MemoryActor other;
  EXPECT_EQ(m_suspender->ReadMemory(other.Pid(), 0x20000000, {bytes.data(), bytes.data() + 16}),
            zym::ZYM_E_NOT_FOUND);
}

}  // namespace
