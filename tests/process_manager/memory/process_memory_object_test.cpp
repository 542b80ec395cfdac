// The memory of a process: how the object comes to be, what it reads, and what it keeps.
#include "process_manager/memory/process_memory_object.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>
#include <locale>
#include <string>
#include <thread>
#include <vector>

#include "process_manager/memory/fake_process_suspender.h"
#include "process_manager/procfs/proc_parser.h"
#include "support/child_process.h"
#include "support/fake_process_control.h"
#include "support/fake_procfs_parser.h"
#include "support/fake_services.h"
#include "support/memory_actor.h"
#include "support/object_count.h"
#include "tests/process_manager/memory/mappings.h"
#include "zym/exception.h"
#include "zym/generic_object_factory.h"

namespace qor::process_memory_manager {
namespace {

using process_manager::Mapping;
using process_manager::MapsOf;
using test_support::FakeProcessControl;
using test_support::FakeProcfsParser;
using test_support::MemoryActor;
using Bytes = std::vector<std::uint8_t>;
using Calls = std::vector<std::string>;

constexpr PidType kNobody = 4'000'000;

class ProcessMemoryTest : public testing::Test {
 protected:
  ProcessMemoryTest() {
    m_parser->maps[kNobody] =
        MapsOf({Mapping(0x1000, 0x2000, 0x20, "/bin/program"), Mapping(0x3000, 0x4000, 0x04)});
    m_host.locator->Add(m_parser);
    m_host.locator->Add(m_suspender);
  }
  ~ProcessMemoryTest() override { EXPECT_EQ(m_host.allocator->Live(), 0); }

  zym::intrusive_ptr<ProcessMemory> Create(PidType pid, bool suspend = false) {
    return ProcessMemory::Create(m_host.locator.get(), zym::CreateObject<FakeProcessControl>(pid).get(),
                                 suspend);
  }
  // What Create throws, as its message and code.
  std::string FailureOf(FakeProcessControl& control, bool suspend = false) {
    try {
      ProcessMemory::Create(m_host.locator.get(), &control, suspend);
    } catch (const zym::CheckResultFailedException& e) {
      return zym::Utf16ToUtf8(e.Message()).value();
    }
    return "nothing";
  }
  std::string FailureOf(PidType pid, bool suspend = false) {
    return FailureOf(*zym::CreateObject<FakeProcessControl>(pid), suspend);
  }

  const test_support::ObjectCount m_objects;
  test_support::FakeHost m_host;
  zym::intrusive_ptr<test_support::FakeProcfsParser> m_parser =
      zym::CreateObject<test_support::FakeProcfsParser>();
  zym::intrusive_ptr<FakeProcessSuspender> m_suspender = zym::CreateObject<FakeProcessSuspender>();
};

// --- creation ---

TEST_F(ProcessMemoryTest, EachStepOfCreationFailsWithATextOfItsOwn) {
  EXPECT_EQ(FailureOf(*zym::CreateObject<FakeProcessControl>(kNobody, zym::ZYM_E_LOCKED)),
            "Expression failed. Couldn't obtain IProcessInformation interface: 0x8000004f (Locked)");
  EXPECT_EQ(FailureOf(*zym::CreateObject<FakeProcessControl>(kNobody, zym::ZYM_FALSE)),
            "Expression failed. Couldn't obtain IProcessInformation interface: 0x80000001 (Interface not "
            "supported)")
      << "a success without an object is none";
  EXPECT_EQ(FailureOf(*zym::CreateObject<FakeProcessControl>(kNobody, zym::ZYM_OK, zym::ZYM_E_LOCKED)),
            "Expression failed. Couldn't obtain information about process: 0x8000004f (Locked)");
  EXPECT_EQ(FailureOf(kNobody + 1),
            "Expression failed. Failed procfs->GetMaps(4000001, maps): 0x8000004b (Unspecified error)");
  m_host.locator->FailWith(procfs::IParser::kIid, zym::ZYM_E_TIMEOUT);
  EXPECT_EQ(FailureOf(kNobody),
            "Expression failed. Failed to load procfs::IParser: 0x80000221 (Operation timeout)");
  m_host.locator->FailWith(zym::IAllocator::kIid, zym::ZYM_E_LOCKED);
  EXPECT_EQ(FailureOf(kNobody), "Expression failed. Cannot create ProcessMemory.: 0x8000004f (Locked)");
}

TEST_F(ProcessMemoryTest, APidOfZeroCountsAsAFailure) {
  EXPECT_EQ(FailureOf(0),
            "Expression failed. Couldn't obtain information about process: 0x80000046 (Invalid argument)");
}

TEST_F(ProcessMemoryTest, AnAllocatorThatFailsAtAnyCallLeavesNothing) {
  for (std::uint64_t call = 0; call < 2; ++call) {
    m_host.allocator->FailFrom(call);
    const bool made = FailureOf(kNobody) == "nothing";
    EXPECT_EQ(made, call == 1);
    EXPECT_EQ(m_host.allocator->Live(), 0);
  }
  m_host.allocator->NeverFail();
}

TEST_F(ProcessMemoryTest, LivesInTheHostsMemoryAndKeepsItsControl) {
  const auto control = zym::CreateObject<FakeProcessControl>(kNobody);
  auto memory = ProcessMemory::Create(m_host.locator.get(), control.get(), false);
  EXPECT_EQ(m_host.allocator->Live(), 1);
  EXPECT_EQ(control->AddRef(), 3U);
  control->Release();
  memory.Reset();
  EXPECT_EQ(control->AddRef(), 2U);
  control->Release();
}

// --- a process that must be stopped ---

TEST_F(ProcessMemoryTest, IsSuspendedFromItsCreationToItsLastRelease) {
  auto memory = Create(kNobody, true);
  auto second = memory;
  EXPECT_EQ(m_suspender->calls, Calls{"suspend 4000000 120000"});
  memory.Reset();
  EXPECT_EQ(m_suspender->calls.size(), 1U);
  second.Reset();
  EXPECT_EQ(m_suspender->calls.back(), "release 4000000");
}

TEST_F(ProcessMemoryTest, WithoutASuspenderAProcessThatMustBeStoppedIsAFailure) {
  m_host.locator->Remove(IQorProcessSuspender::kIid);
  EXPECT_EQ(FailureOf(kNobody, true),
            "Expression failed. Failed to stop process 4000000: 0x80000001 (Interface not supported)");
  EXPECT_TRUE(m_host.tracer->Has(300, "(zym::GetInterface(GetServiceLocator(), m_suspender.Ref())),"));
  EXPECT_TRUE(m_host.tracer->Has(300, " Failed to obtain IQorProcessSuspender interface"));
}

TEST_F(ProcessMemoryTest, AProcessThatCannotBeStoppedIsAFailureAndIsNotReleased) {
  m_suspender->suspendResult = zym::ZYM_E_TIMEOUT;
  EXPECT_EQ(FailureOf(kNobody, true),
            "Expression failed. Failed to stop process 4000000: 0x80000221 (Operation timeout)");
  EXPECT_TRUE(
      m_host.tracer->Has(300,
                         "(m_suspender->SuspendProcess( static_cast<uint32_t>(pid), "
                         "static_cast<uint32_t>(m_timeout))),(ZYM_SUCCEEDED(_result)) failed: result = "
                         "0x80000221 (Operation timeout) Failed to suspend process"));
  EXPECT_EQ(m_suspender->calls, Calls{"suspend 4000000 120000"});
}

TEST_F(ProcessMemoryTest, AReleaseThatFailsIsTracedAndGoesNoFurther) {
  auto memory = Create(kNobody, true);
  m_suspender->releaseResult = zym::ZYM_E_NOT_FOUND;
  memory.Reset();
  EXPECT_TRUE(m_host.tracer->Has(300, "Failed to release process 4000000"));
  EXPECT_EQ(m_suspender->AddRef(), 3U) << "the test's, the locator's, and this one";
  m_suspender->Release();
}

TEST_F(ProcessMemoryTest, TheSuspendersResultOfAReadIsReturnedAsItStands) {
  const auto memory = Create(kNobody, true);
  Bytes bytes(8);
  for (const zym::result_t result : {zym::ZYM_OK, zym::ZYM_FALSE, zym::ZYM_E_LOCKED}) {
    m_suspender->readResult = result;
    EXPECT_EQ(memory->ReadMemory(0x1000, {bytes.data(), bytes.data() + 8}), result);
  }
  EXPECT_EQ(bytes, Bytes(8, 0x5a));
}

TEST_F(ProcessMemoryTest, AReadThatNeedsASuspenderWhichIsNotThereFails) {
  zym::intrusive_ptr<ProcessMemory> memory;
  ASSERT_EQ(
      zym::CreateInstance(m_host.locator.get(), memory.Ref(),
                          zym::intrusive_ptr<IProcessControl>(zym::CreateObject<FakeProcessControl>(kNobody)),
                          kNobody, true),
      zym::ZYM_OK);
  std::uint8_t byte = 0;
  EXPECT_EQ(static_cast<std::uint32_t>(memory->ReadMemory(0x1000, {&byte, &byte + 1})), 0x8000004bU);
  EXPECT_TRUE(m_host.tracer->Has(300, "Processes suspender is required but not initialized"));
  memory.Reset();
  EXPECT_EQ(m_suspender->calls, Calls()) << "nothing is released that wasn't stopped";
}

// --- reads ---

class ProcessMemoryReads : public ProcessMemoryTest {
 protected:
  ProcessMemoryReads() {
    m_host.locator->Add(zym::CreateObject<procfs::ProcParser>(m_host.locator.get()));
    m_memory = Create(m_actor.Pid());
  }

  zym::result_t Read(std::uint64_t address, Bytes& bytes) {
    return m_memory->ReadMemory(address, {bytes.data(), bytes.data() + bytes.size()});
  }
  zym::result_t Read(const MemoryActor::Mapping& mapping, Bytes& bytes) {
    bytes.assign(mapping.length, 0xee);
    return Read(mapping.address, bytes);
  }
  // Reads like a bare pread(2), whatever that gives for the mapping on this kernel.
  void ExpectAsThePlainFile(const MemoryActor::Mapping& mapping) {
    const Bytes plain = test_support::ReadMemFile(m_actor.Pid(), mapping.address, mapping.length);
    Bytes bytes;
    const zym::result_t result = Read(mapping, bytes);
    EXPECT_EQ(result, plain.size() == mapping.length ? zym::ZYM_OK : zym::ZYM_E_EXCEPTION_WITHOUT_RESULT);
    bytes.resize(plain.size());
    EXPECT_EQ(bytes, plain);
  }
  std::string MemPath() const { return "/proc/" + std::to_string(m_actor.Pid()) + "/mem"; }

  MemoryActor m_actor;
  zym::intrusive_ptr<ProcessMemory> m_memory;
};

TEST_F(ProcessMemoryReads, WhatTheProcessToldOfItself) {
  for (const char* name : {"anonymous", "low", "file", "shared", "across", "anonymous-code", "edge"}) {
    Bytes bytes;
    EXPECT_EQ(Read(m_actor.Get(name), bytes), zym::ZYM_OK) << name;
    EXPECT_EQ(bytes, m_actor.Get(name).bytes) << name;
  }
}

TEST_F(ProcessMemoryReads, AboveAndBelowFourGiB) {
  EXPECT_LT(m_actor.Get("low").address, 1ULL << 32);
  EXPECT_GT(m_actor.Get("anonymous").address, 1ULL << 32);
  for (const char* name : {"low", "anonymous"}) {
    Bytes bytes;
    EXPECT_EQ(Read(m_actor.Get(name), bytes), zym::ZYM_OK) << name;
    EXPECT_EQ(bytes, m_actor.Get(name).bytes) << name;
  }
}

TEST_F(ProcessMemoryReads, AnyLengthAtAnyPlace) {
  const auto& anonymous = m_actor.Get("anonymous");
  for (const std::uint64_t offset : {0ULL, 1ULL, 4095ULL, 4096ULL}) {
    for (const std::size_t length : {1ULL, 2ULL, 7ULL, 4096ULL}) {
      Bytes bytes(length, 0xee);
      EXPECT_EQ(Read(anonymous.address + offset, bytes), zym::ZYM_OK);
      const auto begin = anonymous.bytes->begin() + static_cast<std::ptrdiff_t>(offset);
      EXPECT_EQ(bytes, Bytes(begin, begin + static_cast<std::ptrdiff_t>(length))) << offset << " " << length;
    }
  }
}

// The kernel lets the holder of the right read what the process itself can't, by the mem file.
TEST_F(ProcessMemoryReads, AGuardedPageReadsAsThePlainFileDoes) {
  ExpectAsThePlainFile(m_actor.Get("guarded"));
  ExpectAsThePlainFile(m_actor.Get("write-execute"));
}

TEST_F(ProcessMemoryReads, TheKernelsMappingsReadAsThePlainFileDoes) {
  for (const char* name : {"vdso", "vvar"}) {
    if (m_actor.Has(name)) ExpectAsThePlainFile(m_actor.Get(name));
  }
  if (m_actor.Has("vdso")) {
    Bytes bytes;
    EXPECT_EQ(Read(m_actor.Get("vdso"), bytes), zym::ZYM_OK);
    EXPECT_EQ(bytes, m_actor.Get("vdso").bytes);
  }
}

TEST_F(ProcessMemoryReads, AnAddressOfTheUpperHalfIsAskedForAsItIs) {
  ExpectAsThePlainFile({.address = 0xffffffffff600000, .length = 16, .bytes = {}});
  ExpectAsThePlainFile({.address = 0x8000000000000000, .length = 16, .bytes = {}});
  ExpectAsThePlainFile({.address = 0xffffffffffffffff, .length = 1, .bytes = {}});
}

TEST_F(ProcessMemoryReads, AtAddressZeroFailsWhateverTheSize) {
  for (const std::size_t size : {0, 1, 4096}) {
    Bytes bytes(size);
    EXPECT_EQ(static_cast<std::uint32_t>(Read(0, bytes)), 0x80000046U) << size;
  }
}

TEST_F(ProcessMemoryReads, OfZeroLengthSucceedAndTouchNothing) {
  for (const std::uint64_t address :
       {m_actor.Get("anonymous").address, m_actor.Get("unmapped").address, std::uint64_t{1},
        std::uint64_t{0xfffffffffffff001}, std::uint64_t{0xffffffffffffffff}}) {
    std::uint8_t untouched = 0xee;
    EXPECT_EQ(m_memory->ReadMemory(address, {&untouched, &untouched}), zym::ZYM_OK);
    EXPECT_EQ(untouched, 0xee);
    EXPECT_EQ(m_memory->ReadMemory(address, {nullptr, nullptr}), zym::ZYM_OK);
  }
}

TEST_F(ProcessMemoryReads, WhatIsNotMappedIsTracedWithTheFile) {
  Bytes bytes;
  EXPECT_EQ(Read(m_actor.Get("unmapped"), bytes), zym::ZYM_E_EXCEPTION_WITHOUT_RESULT);
  EXPECT_EQ(bytes, Bytes(bytes.size(), 0xee));
  EXPECT_TRUE(m_host.tracer->Has(300, "Couldn't read memory file " + MemPath() + ": "));
  EXPECT_TRUE(m_host.tracer->Has("Input/output error"));
}

// The stream is armed, so what is short ends as a failure; the caller has what came before.
TEST_F(ProcessMemoryReads, AcrossTheEdgeOfAMappingFailWithAPartialBuffer) {
  const auto& edge = m_actor.Get("edge");
  Bytes bytes(2 * edge.length, 0xee);
  EXPECT_EQ(Read(edge.address, bytes), zym::ZYM_E_EXCEPTION_WITHOUT_RESULT);
  EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(edge.length)), edge.bytes);
  EXPECT_EQ(Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(edge.length), bytes.end()),
            Bytes(edge.length, 0xee));
}

TEST_F(ProcessMemoryReads, EndWithTheProcess) {
  Bytes bytes;
  ASSERT_EQ(Read(m_actor.Get("anonymous"), bytes), zym::ZYM_OK);
  m_actor.End();
  EXPECT_EQ(Read(m_actor.Get("anonymous"), bytes), zym::ZYM_E_EXCEPTION_WITHOUT_RESULT);
  EXPECT_TRUE(m_host.tracer->Has(300, "No such file or directory"));
  std::uint8_t none = 0;
  EXPECT_NE(m_memory->ReadMemory(1, {&none, &none}), zym::ZYM_OK)
      << "even of nothing: the file is opened each time";
}

TEST_F(ProcessMemoryReads, AreTracedInHexadecimal) {
  Bytes bytes(255);
  ASSERT_EQ(Read(0x20000000, bytes), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(800, "ProcessMemory::ReadMemory 20000000 (size=ff"));
}

TEST_F(ProcessMemoryReads, MayRunFromSeveralThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (const char* name : {"anonymous", "low", "file", "shared"})
    threads.emplace_back([this, name] {
      for (int i = 0; i < 100; ++i) {
        Bytes bytes;
        EXPECT_EQ(Read(m_actor.Get(name), bytes), zym::ZYM_OK);
        EXPECT_EQ(bytes, m_actor.Get(name).bytes);
        ProcessMemoryRegionInformation region;
        EXPECT_EQ(m_memory->QueryRegion(m_actor.Get(name).address, region), zym::ZYM_OK);
      }
    });
  for (std::thread& thread : threads) thread.join();
}

// A program that another thread starts during a read must not inherit the memory of the process.
TEST_F(ProcessMemoryReads, OpenTheFileSoThatNoProgramInheritsIt) {
  EXPECT_EQ(test_support::RunInChild([this]() -> std::string {
              // From here on, whatever opens a file without O_CLOEXEC gets EPERM.
              if (std::string failure = test_support::FailSystemCall(
                      SYS_openat, EPERM, test_support::Argument{.index = 2, .value = O_RDONLY});
                  !failure.empty())
                return failure;
              Bytes bytes;
              if (Read(m_actor.Get("anonymous"), bytes) != zym::ZYM_OK) return "the read failed";
              return bytes == m_actor.Get("anonymous").bytes ? "" : "the read gave other bytes";
            }),
            "");
}

TEST_F(ProcessMemoryReads, LeaveNoDescriptorOpen) {
  const auto before = test_support::OpenDescriptors();
  Bytes bytes;
  EXPECT_EQ(Read(m_actor.Get("anonymous"), bytes), zym::ZYM_OK);
  EXPECT_NE(Read(m_actor.Get("unmapped"), bytes), zym::ZYM_OK);
  EXPECT_EQ(test_support::OpenDescriptors(), before);
}

// A host's global locale may convert characters, and the conversion may throw what is no std::exception.
TEST_F(ProcessMemoryReads, AnyOtherExceptionIsTracedAsUnknown) {
  class Throwing : public std::codecvt<char, char, std::mbstate_t> {
    bool do_always_noconv() const noexcept override { return false; }
    result do_in(state_type&, const char*, const char*, const char*&, char*, char*, char*&) const override {
      throw 42;
    }
  };
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Throwing));
  Bytes bytes;
  const zym::result_t result = Read(m_actor.Get("anonymous"), bytes);
  std::locale::global(before);
  EXPECT_EQ(result, zym::ZYM_E_UNKNOWN_EXCEPTION);
  EXPECT_TRUE(m_host.tracer->Has(300, "Couldn't read memory file " + MemPath() + ": Unknown error :("));
}

// --- the snapshot ---

TEST_F(ProcessMemoryTest, TheSnapshotNeverChanges) {
  const auto memory = Create(kNobody);
  m_parser->maps[kNobody] = MapsOf({Mapping(0x9000, 0xa000, 0x04)});
  ProcessMemoryRegionInformation region;
  ASSERT_EQ(memory->QueryRegion(0, region), zym::ZYM_OK);
  EXPECT_EQ(region.baseAddress, 0x1000U);
  EXPECT_EQ(memory->QueryRegion(0x9000, region), zym::ZYM_E_INVALID_ARGUMENT);
  zym::types::string16_t path;
  EXPECT_EQ(memory->QueryMappedFilePath(0x1000, path), zym::ZYM_OK);
  EXPECT_EQ(path, u"/bin/program");
}

TEST_F(ProcessMemoryTest, AnEnumeratorWalksTheSnapshotAndOutlivesTheCallersReference) {
  auto memory = Create(kNobody);
  zym::intrusive_ptr<IProcessMemoryRegionEnumerator> enumerator;
  ASSERT_EQ(memory->EnumerateMemoryRegions(enumerator.Ref()), zym::ZYM_OK);
  memory.Reset();
  std::vector<std::uint64_t> bases;
  ProcessMemoryRegionInformation region;
  for (int walk = 0; walk < 2; ++walk) {
    while (enumerator->Next(region) == zym::ZYM_OK) bases.push_back(region.baseAddress);
    EXPECT_EQ(enumerator->Reset(), zym::ZYM_OK);
  }
  EXPECT_EQ(bases, (std::vector<std::uint64_t>{0x1000, 0x3000, 0x1000, 0x3000}));
}

TEST_F(ProcessMemoryTest, AnEnumeratorOverAProcessWithNoMappingsEndsAtOnce) {
  m_parser->maps[kNobody] = {};
  const auto memory = Create(kNobody);
  zym::intrusive_ptr<IProcessMemoryRegionEnumerator> enumerator;
  ASSERT_EQ(memory->EnumerateMemoryRegions(enumerator.Ref()), zym::ZYM_OK);
  ProcessMemoryRegionInformation region;
  EXPECT_EQ(enumerator->Next(region), zym::ZYM_FALSE);
}

TEST_F(ProcessMemoryTest, AnEnumeratorThatCannotBeMadeIsTracedAsACall) {
  const auto memory = Create(kNobody);
  m_host.allocator->FailFrom(0);
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IProcessMemoryRegionEnumerator*>(&sentinel);
  IProcessMemoryRegionEnumerator* enumerator = untouched;
  EXPECT_EQ(static_cast<std::uint32_t>(memory->EnumerateMemoryRegions(&enumerator)), 0x8000004bU);
  EXPECT_EQ(enumerator, untouched);
  EXPECT_TRUE(m_host.tracer->Has(800, "Failed to enumerate regions for process 4000000: "));
  EXPECT_TRUE(m_host.tracer->Has("Failed to create ProcessMemoryRegionEnumerator"));
  m_host.allocator->NeverFail();
}

TEST_F(ProcessMemoryTest, WritingIsNotImplementedAndSaysWhatWasCalled) {
  const auto memory = Create(kNobody);
  const std::uint8_t byte = 0;
  EXPECT_EQ(static_cast<std::uint32_t>(memory->WriteMemory(0x1000, {&byte, &byte + 1})), 0x80000043U);
  EXPECT_TRUE(m_host.tracer->Has(800, "qor::process_memory_manager::ProcessMemory::WriteMemory("));
}

}  // namespace
}  // namespace qor::process_memory_manager
