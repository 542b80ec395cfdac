// The memory of a process on a kernel that lets only a stopped one be read, with pmhost's suspender: the
// kernel's version is made up, and everything else is real.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "host/services/process_suspender.h"
#include "process_manager/memory/process_memory_factory.h"
#include "process_manager/procfs/proc_parser.h"
#include "support/actor.h"
#include "support/counting.h"
#include "support/fake_process_control.h"
#include "support/fake_services.h"
#include "support/memory_actor.h"
#include "support/object_count.h"
#include "support/threads.h"
#include "zym/generic_object_factory.h"

namespace {

using namespace system_interceptors::process_memory_manager;
using pmhost::ProcessSuspender;
using pmhost::StopMeans;
using qor::process_memory_manager::ProcessMemoryFactory;
using qor::process_memory_manager::ProcessMemoryFactorySurroundings;
using test_support::Counting;
using test_support::Eventually;
using test_support::MemoryActor;
using test_support::StateOf;
using Bytes = std::vector<std::uint8_t>;
using MemoryPtr = zym::intrusive_ptr<IProcessMemory>;

// Stops by signals, and keeps account.
class AccountedSuspender : public ProcessSuspender {
 public:
  AccountedSuspender() : ProcessSuspender({StopMeans::kSignals}) {}

  zym::result_t Start() override {
    ++starts;
    return ProcessSuspender::Start();
  }
  zym::result_t Stop() override {
    ++stops;
    return ProcessSuspender::Stop();
  }
  zym::result_t ReadMemory(std::uint32_t pid, std::uint64_t address,
                           const zym::types::blob_range_t& range) override {
    ++reads;
    return ProcessSuspender::ReadMemory(pid, address, range);
  }

  int starts = 0;
  int stops = 0;
  int reads = 0;
};

class SuspendedMemory : public testing::Test {
 protected:
  SuspendedMemory() {
    m_host.locator->Add(zym::CreateObject<qor::procfs::ProcParser>(m_host.locator.get()),
                        qor::procfs::IParser::kIid);
    m_host.locator->Add(m_suspender, qor::IQorProcessSuspender::kIid);
    m_factory = MakeFactory({3, 2, 0, 0});
  }
  ~SuspendedMemory() override {
    m_factory.Reset();
    EXPECT_EQ(m_suspender->starts, m_suspender->stops);
    EXPECT_FALSE(m_host.tracer->Has("Failed to "));
  }

  zym::intrusive_ptr<ProcessMemoryFactory> MakeFactory(qor::KernelVersion version) const {
    zym::intrusive_ptr<ProcessMemoryFactory> factory;
    const ProcessMemoryFactorySurroundings surroundings{
        .kernelVersion = [version](zym::ITracer*) { return version; }};
    EXPECT_EQ(zym::CreateInstance(m_host.locator.get(), factory.Ref(), surroundings), zym::ZYM_OK);
    return factory;
  }
  static MemoryPtr Create(ProcessMemoryFactory& factory, std::uint32_t pid) {
    MemoryPtr memory;
    const auto control = zym::CreateObject<test_support::FakeProcessControl>(pid);
    EXPECT_EQ(factory.Create(control.get(), memory.Ref()), zym::ZYM_OK);
    return memory;
  }
  MemoryPtr Of(std::uint32_t pid) const { return Create(*m_factory, pid); }
  static zym::result_t Read(IProcessMemory& memory, std::uint64_t address, Bytes& bytes) {
    return memory.ReadMemory(address, {bytes.data(), bytes.data() + bytes.size()});
  }

  const test_support::ObjectCount m_objects;
  test_support::FakeHost m_host;
  zym::intrusive_ptr<AccountedSuspender> m_suspender = zym::CreateObject<AccountedSuspender>();
  zym::intrusive_ptr<ProcessMemoryFactory> m_factory;
};

TEST_F(SuspendedMemory, AProcessStandsStillFromCreateToTheLastRelease) {
  const Counting child;
  EXPECT_TRUE(child.IsRunning());
  MemoryPtr memory = Of(child.Pid());
  EXPECT_TRUE(child.IsStill());
  // Two reads of a counter that counts whenever it may.
  Bytes first(sizeof(std::uint64_t));
  Bytes second(sizeof(std::uint64_t));
  const auto address = reinterpret_cast<std::uint64_t>(&child.Counter());
  EXPECT_EQ(Read(*memory, address, first), zym::ZYM_OK);
  EXPECT_EQ(Read(*memory, address, second), zym::ZYM_OK);
  EXPECT_EQ(first, second);
  EXPECT_TRUE(child.IsStill()) << "a read lets nobody go on";
  memory.Reset();
  EXPECT_TRUE(child.IsRunning());
}

TEST_F(SuspendedMemory, AWalkKeepsTheProcessStoppedWithItsMemory) {
  const Counting child;
  MemoryPtr memory = Of(child.Pid());
  zym::intrusive_ptr<IProcessMemoryRegionEnumerator> regions;
  ASSERT_EQ(memory->EnumerateMemoryRegions(regions.Ref()), zym::ZYM_OK);
  memory.Reset();
  EXPECT_TRUE(child.IsStill());
  ProcessMemoryRegionInformation region;
  EXPECT_EQ(regions->Next(region), zym::ZYM_OK);
  regions.Reset();
  EXPECT_TRUE(child.IsRunning());
}

TEST_F(SuspendedMemory, ReadsGoThroughTheSuspenderAndGiveWhatTheProcessTold) {
  const MemoryActor actor;
  const auto pid = static_cast<pid_t>(actor.Pid());
  MemoryPtr memory = Of(actor.Pid());
  EXPECT_EQ(StateOf(pid), 'T');
  int reads = 0;
  for (const char* name : {"anonymous", "low", "file", "shared", "across", "library", "edge"}) {
    Bytes bytes(actor.Get(name).length);
    EXPECT_EQ(Read(*memory, actor.Get(name).address, bytes), zym::ZYM_OK) << name;
    EXPECT_EQ(bytes, actor.Get(name).bytes) << name;
    EXPECT_EQ(m_suspender->reads, ++reads);
  }
  memory.Reset();
  EXPECT_TRUE(Eventually([&] { return StateOf(pid) == 'S'; })) << "it waits for its input again";
}

TEST_F(SuspendedMemory, AReadOverTheEdgeGivesAPart) {
  const MemoryActor actor;
  const MemoryPtr memory = Of(actor.Pid());
  const auto& edge = actor.Get("edge");
  Bytes bytes(2 * edge.length);
  EXPECT_EQ(static_cast<std::uint32_t>(Read(*memory, edge.address, bytes)), 1U);
  bytes.resize(edge.length);
  EXPECT_EQ(bytes, edge.bytes);
}

TEST_F(SuspendedMemory, WhatTheMemoryAnswersItselfAsksNoSuspender) {
  const MemoryActor actor;
  const MemoryPtr memory = Of(actor.Pid());
  Bytes bytes(1);
  EXPECT_EQ(static_cast<std::uint32_t>(Read(*memory, 0, bytes)), 0x80000046U);
  EXPECT_EQ(m_suspender->reads, 0);
}

TEST_F(SuspendedMemory, TwoMemoriesOfOneProcessNeedBothReleases) {
  const Counting child;
  MemoryPtr first = Of(child.Pid());
  MemoryPtr second = Of(child.Pid());
  first.Reset();
  EXPECT_TRUE(child.IsStill());
  Bytes bytes(sizeof(std::uint64_t));
  EXPECT_EQ(Read(*second, reinterpret_cast<std::uint64_t>(&child.Counter()), bytes), zym::ZYM_OK);
  second.Reset();
  EXPECT_TRUE(child.IsRunning());
}

TEST_F(SuspendedMemory, EachFactoryStartsTheServiceForItsLife) {
  EXPECT_EQ(m_suspender->starts, 1);
  auto other = MakeFactory({2, 6, 32, 754});
  EXPECT_EQ(m_suspender->starts, 2);
  const Counting child;
  const MemoryPtr memory = Create(*other, child.Pid());
  other.Reset();
  EXPECT_EQ(m_suspender->stops, 1);
  EXPECT_TRUE(child.IsStill()) << "the service runs for the first factory";
}

TEST_F(SuspendedMemory, OnThreeThreeAndLaterNobodyIsStopped) {
  const auto factory = MakeFactory({3, 3, 0, 0});
  EXPECT_EQ(m_suspender->starts, 1) << "that of the old kernel";
  const Counting child;
  const MemoryPtr memory = Create(*factory, child.Pid());
  EXPECT_TRUE(child.IsRunning());
  Bytes bytes(sizeof(std::uint64_t));
  EXPECT_EQ(Read(*memory, reinterpret_cast<std::uint64_t>(&child.Counter()), bytes), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->reads, 0);
}

// It would stand still for good with nobody left to read it.
TEST_F(SuspendedMemory, AProcessThatCannotBeStoppedMakesNoMemory) {
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IProcessMemory*>(&sentinel);
  IProcessMemory* memory = untouched;
  const auto control =
      zym::CreateObject<test_support::FakeProcessControl>(static_cast<std::uint32_t>(::getpid()));
  EXPECT_EQ(m_factory->Create(control.get(), &memory), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(memory, untouched);
  EXPECT_TRUE(m_host.tracer->Has(300, "Failed to suspend process"));
  EXPECT_TRUE(m_host.tracer->Has(300, "Failed to stop process " + std::to_string(::getpid())));
  m_host.tracer->Clear();
}

}  // namespace
