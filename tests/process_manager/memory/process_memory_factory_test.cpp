// The factory of memory objects, and when it needs a suspender.
#include "process_manager/memory/process_memory_factory.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "process_manager/memory/factory_on_kernel.h"
#include "process_manager/memory/fake_process_suspender.h"
#include "support/fake_process_control.h"
#include "support/fake_procfs_parser.h"
#include "support/fake_services.h"
#include "support/memory_actor.h"
#include "support/object_count.h"
#include "tests/process_manager/memory/mappings.h"
#include "zym/generic_object_factory.h"
#include "zym/module_counter.h"

namespace qor::process_memory_manager {
namespace {

using namespace system_interceptors::process_memory_manager;
using test_support::FakeProcessControl;
using test_support::FakeProcfsParser;
using Calls = std::vector<std::string>;

// The factory on the kernel that runs.
class FactoryHere : public ProcessMemoryFactory {
 public:
  using ProcessMemoryFactory::GetKernelVersion;
  using ProcessMemoryFactory::ProcessMemoryFactory;
};

class MemoryFactory : public testing::Test {
 protected:
  MemoryFactory() {
    m_parser->maps[kPid] = process_manager::MapsOf({process_manager::Mapping(0x1000, 0x2000, 0x04)});
    m_host.locator->Add(m_parser);
    m_host.locator->Add(m_suspender);
  }
  ~MemoryFactory() override {
    m_factory.Reset();
    EXPECT_EQ(m_host.allocator->Live(), 0);
  }

  zym::result_t MakeFactory(KernelVersion version) {
    m_factory.Reset();
    return MakeFactory([version] { return version; });
  }
  zym::result_t MakeFactory(std::function<KernelVersion()> version) {
    zym::intrusive_ptr<FactoryOnKernel> factory;
    const zym::result_t result = zym::CreateInstance(m_host.locator.get(), factory.Ref(), std::move(version));
    m_factory = factory;
    return result;
  }
  bool Requires(KernelVersion version) {
    m_host.tracer->Clear();
    EXPECT_EQ(MakeFactory(version), zym::ZYM_OK);
    const bool required = m_host.tracer->Has(800, "Suspender required: 1");
    EXPECT_NE(m_host.tracer->Has(800, "Suspender required: 0"), required);
    return required;
  }
  zym::result_t Create(zym::intrusive_ptr<IProcessMemory>& memory, PidType pid = kPid) {
    return m_factory->Create(zym::CreateObject<FakeProcessControl>(pid).get(), memory.Ref());
  }

  static constexpr PidType kPid = 4'000'000;  // nobody's
  static constexpr KernelVersion kOld{3, 2, 0, -1};
  static constexpr KernelVersion kNew{3, 3, -1, -1};

  const test_support::ObjectCount m_objects;
  test_support::FakeHost m_host;
  zym::intrusive_ptr<test_support::FakeProcfsParser> m_parser =
      zym::CreateObject<test_support::FakeProcfsParser>();
  zym::intrusive_ptr<FakeProcessSuspender> m_suspender = zym::CreateObject<FakeProcessSuspender>();
  zym::intrusive_ptr<ProcessMemoryFactory> m_factory;
};

TEST_F(MemoryFactory, KernelsBelowThreeThreeRequireASuspender) {
  EXPECT_TRUE(Requires({3, 2, 0, 4}));
  EXPECT_TRUE(Requires({3, 2, 99, 99}));
  EXPECT_TRUE(Requires({2, 6, 32, 754}));
  EXPECT_FALSE(Requires({3, 10, 0, 1160}));
  EXPECT_FALSE(Requires({4, 0, 0, 0}));
  EXPECT_FALSE(Requires({6, 18, 44, -1}));
}

TEST_F(MemoryFactory, PatchAndBuildDoNotDecideForAThreeThreeKernel) {
  EXPECT_FALSE(Requires({3, 3, -1, -1}));
  EXPECT_FALSE(Requires({3, 3, 0, 0}));
  EXPECT_FALSE(Requires({3, 3, 8, 1}));
}

TEST_F(MemoryFactory, AKernelThatIsNotKnownRequiresASuspender) {
  EXPECT_TRUE(Requires(KernelVersion{}));
}

TEST_F(MemoryFactory, TheRunningKernelsVersionIsRead) {
  const auto factory = zym::CreateObject<FactoryHere>(m_host.locator.get());
  EXPECT_EQ(factory->GetKernelVersion(), GetLinuxKernelRelease(m_host.tracer.get()));
}

TEST_F(MemoryFactory, TheRunningKernelsVersionIsReadOnce) {
  const auto factory = zym::CreateObject<FactoryHere>(m_host.locator.get());
  const KernelVersion first = factory->GetKernelVersion();
  m_host.tracer->Clear();
  EXPECT_EQ(factory->GetKernelVersion(), first);
  EXPECT_TRUE(m_host.tracer->Records().empty()) << "uname was not asked again";
}

TEST_F(MemoryFactory, ASuspenderIsStartedAndStoppedWithTheFactory) {
  ASSERT_EQ(MakeFactory(kOld), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->calls, Calls{"start"});
  m_factory.Reset();
  EXPECT_EQ(m_suspender->calls, (Calls{"start", "stop"}));
}

TEST_F(MemoryFactory, WithoutNeedTheSuspenderIsLeftAlone) {
  ASSERT_EQ(MakeFactory(kNew), zym::ZYM_OK);
  EXPECT_FALSE(m_host.locator->Asked().contains(0xdd65aa6a));
  zym::intrusive_ptr<IProcessMemory> memory;
  ASSERT_EQ(Create(memory), zym::ZYM_OK);
  memory.Reset();
  m_factory.Reset();
  EXPECT_EQ(m_suspender->calls, Calls());
}

TEST_F(MemoryFactory, WithoutASuspenderThatIsRequiredItIsNotMade) {
  m_host.locator->FailWith(0xdd65aa6a, zym::ZYM_E_NOT_FOUND);
  const std::int32_t objects = zym::ModuleObjectCounter::Value();
  EXPECT_EQ(MakeFactory(kOld), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(m_host.tracer->Has(300, "(zym::GetInterface(GetServiceLocator(), m_suspender.Ref()))"));
  EXPECT_TRUE(m_host.tracer->Has(300, " Failed to obtain IQorProcessSuspender interface"));
  EXPECT_EQ(m_suspender->calls, Calls());
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), objects);
}

TEST_F(MemoryFactory, WithASuspenderThatDoesNotStartItIsNotMade) {
  m_suspender->startResult = zym::ZYM_E_ACCESS_DENIED;
  const std::int32_t objects = zym::ModuleObjectCounter::Value();
  EXPECT_EQ(MakeFactory(kOld), zym::ZYM_E_ACCESS_DENIED);
  EXPECT_TRUE(m_host.tracer->Has(300, "(m_suspender->Start())"));
  EXPECT_TRUE(m_host.tracer->Has(300, " Failed to start IQorProcessSuspender"));
  EXPECT_EQ(m_suspender->calls, (Calls{"start", "stop"})) << "FinalRelease has run";
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), objects);
}

TEST_F(MemoryFactory, ASuspenderThatDoesNotStopIsTracedAsACall) {
  ASSERT_EQ(MakeFactory(kOld), zym::ZYM_OK);
  m_suspender->stopResult = zym::ZYM_E_TIMEOUT;
  m_factory.Reset();
  EXPECT_TRUE(m_host.tracer->Has(800, "Failed to stop IQorProcessSuspender"));
  EXPECT_EQ(m_suspender->AddRef(), 3U) << "the test's, the locator's, and this one: it was let go";
  m_suspender->Release();
}

// The edge of two kernels: on 3.2 a process is stopped and read through the suspender, on 3.3 neither.
TEST_F(MemoryFactory, OnAKernelOfThreeTwoAProcessIsStoppedAndReadThroughTheSuspender) {
  ASSERT_EQ(MakeFactory(kOld), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessMemory> memory;
  ASSERT_EQ(Create(memory), zym::ZYM_OK);
  EXPECT_EQ(m_suspender->calls, (Calls{"start", "suspend 4000000 120000"}));
  std::uint8_t bytes[4] = {};
  EXPECT_EQ(memory->ReadMemory(0x1000, {bytes, bytes + 4}), zym::ZYM_OK);
  EXPECT_EQ(bytes[3], 0x5a);
  EXPECT_EQ(m_suspender->calls.back(), "read 4000000 4096");
  memory.Reset();
  EXPECT_EQ(m_suspender->calls.back(), "release 4000000");
}

TEST_F(MemoryFactory, OnAKernelOfThreeThreeAProcessIsReadAsItRuns) {
  const test_support::MemoryActor actor;
  m_parser->maps[actor.Pid()] = {};
  ASSERT_EQ(MakeFactory(kNew), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessMemory> memory;
  ASSERT_EQ(Create(memory, actor.Pid()), zym::ZYM_OK);
  std::uint8_t byte = 0;
  const auto& anonymous = actor.Get("anonymous");
  EXPECT_EQ(memory->ReadMemory(anonymous.address, {&byte, &byte + 1}), zym::ZYM_OK);
  EXPECT_EQ(byte, anonymous.bytes->front());
  EXPECT_EQ(m_suspender->calls, Calls());
}

TEST_F(MemoryFactory, AFailureToCreateIsTracedAndReturnedAndTheOutParameterLeftAlone) {
  ASSERT_EQ(MakeFactory(kNew), zym::ZYM_OK);
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IProcessMemory*>(&sentinel);
  IProcessMemory* memory = untouched;
  EXPECT_EQ(m_factory->Create(zym::CreateObject<FakeProcessControl>(kPid + 1).get(), &memory),
            zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(memory, untouched);
  EXPECT_TRUE(m_host.tracer->Has(300, "Failed procfs->GetMaps(4000001, maps)"));
}

TEST_F(MemoryFactory, AVersionThatCannotBeHadIsAFailureOfTheConstruction) {
  EXPECT_EQ(MakeFactory([]() -> KernelVersion { throw std::bad_alloc(); }), zym::ZYM_E_OUT_OF_MEMORY);
}

}  // namespace
}  // namespace qor::process_memory_manager
