// The memory and the modules of a process when memory gives out at each allocation of an operation.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "module/memory_faults.h"
#include "process_manager/process_memory.h"
#include "process_manager/process_modules.h"
#include "support/fake_process_control.h"
#include "support/memory_actor.h"
#include "support/own_process.h"

namespace {

using namespace test_support;
using namespace system_interceptors::process_manager;
using namespace system_interceptors::process_memory_manager;
using Failing = HeapFaults::Failing;
using Threads = HeapFaults::Threads;
namespace class_ids = qor::class_ids;

class ShieldedControl : public FakeProcessControl {
 public:
  using FakeProcessControl::FakeProcessControl;
  zym::result_t GetInformation(IProcessInformation** information) override {
    const HostsOwnMemory own;
    return FakeProcessControl::GetInformation(information);
  }
};

// A process of many mappings, and the doors to its memory and to its modules.
class ProcessMemoryFaults : public testing::Test {
 protected:
  ProcessMemoryFaults() {
    EXPECT_EQ(m_faultHost.module.Make(class_ids::kProcessMemoryFactory, m_faultHost.Locator(), m_factory),
              zym::ZYM_OK);
    EXPECT_EQ(m_faultHost.module.Make(class_ids::kProcessModuleManager, m_faultHost.Locator(), m_modules),
              zym::ZYM_OK);
    EXPECT_EQ(m_factory->Create(m_control.get(), m_memory.Ref()), zym::ZYM_OK);
    EXPECT_EQ(m_modules->GetModule(m_actor.Pid(), m_actor.Get("file").address, m_module.Ref()), zym::ZYM_OK);
  }

  // An operation that fails with one of `expected` whenever an allocation does, with a trace that says so,
  // and keeps nothing.
  void ExpectARefusal(std::initializer_list<zym::result_t> expected, std::string_view traced,
                      const std::function<zym::result_t()>& operation) {
    RecordingTracer& tracer = *m_faultHost.host.tracer;
    AtEachAllocation([&](Shortage shortage) {
      SCOPED_TRACE(shortage);
      tracer.Clear();
      const auto descriptors = OpenDescriptors();
      const std::int64_t before = HeapFaults::Live();
      const std::int64_t hostsBefore = m_faultHost.host.allocator->Live();
      HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
      const zym::result_t result = operation();
      faults.End();
      if (faults.Fired()) {
        EXPECT_TRUE(IsOneOf(result, expected)) << std::hex << result;
        EXPECT_TRUE(tracer.Has(traced)) << "nobody was told";
      } else {
        EXPECT_EQ(result, zym::ZYM_OK);
      }
      tracer.Clear();
      EXPECT_EQ(m_faultHost.host.allocator->Live(), hostsBefore);
      EXPECT_EQ(HeapFaults::Live(), before);
      EXPECT_EQ(OpenDescriptors(), descriptors);
      return faults.Fired();
    });
  }
  // The same of one that gives an object, which is left alone with a failure.
  template <class I>
  void ExpectAnObjectOrNone(std::initializer_list<zym::result_t> expected, std::string_view traced,
                            const std::function<zym::result_t(I** out)>& operation) {
    ExpectARefusal(expected, traced, [&] {
      int nothing = 0;
      auto* object = reinterpret_cast<I*>(&nothing);
      const zym::result_t result = operation(&object);
      EXPECT_EQ(static_cast<void*>(object) == &nothing, result != zym::ZYM_OK);
      if (result == zym::ZYM_OK) object->Release();
      return result;
    });
  }

  FaultHost m_faultHost;
  MemoryActor m_actor;
  const zym::intrusive_ptr<ShieldedControl> m_control = zym::CreateObject<ShieldedControl>(m_actor.Pid());
  zym::intrusive_ptr<IProcessMemoryFactory> m_factory;
  zym::intrusive_ptr<IProcessModuleManager> m_modules;
  zym::intrusive_ptr<IProcessMemory> m_memory;
  zym::intrusive_ptr<IProcessModule> m_module;  // with a path that is too long for a string of its own
};

TEST_F(ProcessMemoryFaults, AMemoryIsGivenOrRefusedWhateverAllocationFails) {
  ExpectAnObjectOrNone<IProcessMemory>(
      {zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_UNSPECIFIED},
      "Create: ", [&](IProcessMemory** out) { return m_factory->Create(m_control.get(), out); });
}

TEST_F(ProcessMemoryFaults, AWalkOverRegionsThatThereIsNoMemoryForIsUnspecified) {
  ExpectAnObjectOrNone<IProcessMemoryRegionEnumerator>(
      {zym::ZYM_E_UNSPECIFIED}, "Failed to enumerate regions for process ",
      [&](IProcessMemoryRegionEnumerator** out) { return m_memory->EnumerateMemoryRegions(out); });
}

TEST_F(ProcessMemoryFaults, ReadsGiveAllTheBytesOrAResult) {
  const auto& expected = m_actor.Get("anonymous");
  ASSERT_TRUE(expected.bytes.has_value());
  std::vector<std::uint8_t> bytes(expected.length);
  // A stream that can't be opened for whatever reason has no result of its own.
  ExpectARefusal({zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_EXCEPTION_WITHOUT_RESULT},
                 "Couldn't read memory file ", [&] {
                   std::fill(bytes.begin(), bytes.end(), std::uint8_t{0});
                   const zym::result_t result =
                       m_memory->ReadMemory(expected.address, {bytes.data(), bytes.data() + bytes.size()});
                   if (result == zym::ZYM_OK) {
                     EXPECT_TRUE(bytes == *expected.bytes);
                   }
                   return result;
                 });
}

TEST_F(ProcessMemoryFaults, APathIsGivenWholeOrNotAtAll) {
  ExpectARefusal({zym::ZYM_E_OUT_OF_MEMORY}, "QueryMappedFilePath: std::bad_alloc", [&] {
    zym::types::string16_t path = u"before";
    const zym::result_t result = m_memory->QueryMappedFilePath(m_actor.Get("file").address, path);
    EXPECT_EQ(path == u"before", result != zym::ZYM_OK);
    return result;
  });
  ExpectARefusal({zym::ZYM_E_OUT_OF_MEMORY}, "GetImagePath: std::bad_alloc", [&] {
    zym::types::string16_t path = u"before";
    const zym::result_t result = m_module->GetImagePath(path);
    EXPECT_EQ(path == u"before", result != zym::ZYM_OK);
    return result;
  });
  ExpectARefusal({zym::ZYM_E_OUT_OF_MEMORY}, "GetInformation: std::bad_alloc", [&] {
    ProcessModuleInformation information;
    const zym::result_t result = m_module->GetInformation(information);
    EXPECT_EQ(information.size == 0, result != zym::ZYM_OK);
    EXPECT_EQ(information.imagePath.empty(), result != zym::ZYM_OK);
    return result;
  });
}

TEST_F(ProcessMemoryFaults, ModulesAreGivenOrRefusedWhateverAllocationFails) {
  ExpectAnObjectOrNone<IProcessModuleEnumerator>(
      {zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_UNSPECIFIED},
      "Failed to create process module enumerator error for pid " + std::to_string(m_actor.Pid()) + ": ",
      [&](IProcessModuleEnumerator** out) { return m_modules->EnumerateModules(m_actor.Pid(), out); });
  ExpectAnObjectOrNone<IProcessModule>(
      {zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_UNSPECIFIED},
      "ProcessModuleManager::GetModuleModules error: ", [&](IProcessModule** out) {
        return m_modules->GetModule(m_actor.Pid(), m_actor.Get("file").address, out);
      });
}

// The one that couldn't be given comes with the next call.
TEST_F(ProcessMemoryFaults, AWalkOverModulesSkipsNone) {
  zym::intrusive_ptr<IProcessModuleEnumerator> enumerator;
  ASSERT_EQ(m_modules->EnumerateModules(m_actor.Pid(), enumerator.Ref()), zym::ZYM_OK);
  const auto walk = [&](bool failing) {
    std::vector<std::uint64_t> bases;
    EXPECT_EQ(enumerator->Reset(), zym::ZYM_OK);
    for (;;) {
      zym::intrusive_ptr<IProcessModule> module;
      if (failing) {
        HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
        const zym::result_t result = enumerator->Next(module.Ref());
        faults.End();
        // In a sanitized build, where operator new alone fails, one with a short path needs nothing.
        EXPECT_EQ(result == zym::ZYM_E_OUT_OF_MEMORY, faults.Fired()) << std::hex << result;
        EXPECT_EQ(bool(module), result == zym::ZYM_OK);
      }
      if (!module && enumerator->Next(module.Ref()) != zym::ZYM_OK) return bases;
      bases.emplace_back();
      EXPECT_EQ(module->GetBaseAddress(bases.back()), zym::ZYM_OK);
    }
  };
  const std::vector<std::uint64_t> bases = walk(false);
  EXPECT_GE(bases.size(), 5U);
  EXPECT_EQ(walk(true), bases);
  EXPECT_TRUE(m_faultHost.host.tracer->Has(300, "Next: std::bad_alloc"));
}

TEST_F(ProcessMemoryFaults, WhatIsAskedOfASnapshotNeedsNoMemory) {
  zym::intrusive_ptr<IProcessMemoryRegionEnumerator> regions;
  ASSERT_EQ(m_memory->EnumerateMemoryRegions(regions.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessModuleEnumerator> modules;
  ASSERT_EQ(m_modules->EnumerateModules(m_actor.Pid(), modules.Ref()), zym::ZYM_OK);
  ProcessMemoryRegionInformation region;
  std::uint64_t number = 0;
  std::uint8_t byte = 0;
  HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
  const zym::result_t results[] = {
      m_memory->QueryRegion(0, region), regions->Next(region),     regions->Reset(), modules->Reset(),
      m_module->GetBaseAddress(number), m_module->GetSize(number),
  };
  const zym::result_t refused[] = {
      m_memory->ReadMemory(0, {&byte, &byte + 1}),
      m_memory->QueryRegion(~std::uint64_t{0}, region),
      m_memory->WriteMemory(1, {&byte, &byte + 1}),
      m_modules->EnumerateModules(0, modules.Ref()),
  };
  modules.Reset();
  regions.Reset();
  m_module.Reset();
  m_memory.Reset();
  m_modules.Reset();
  m_factory.Reset();
  faults.End();
  for (const zym::result_t result : results) EXPECT_EQ(result, zym::ZYM_OK) << std::hex << result;
  EXPECT_EQ(refused[0], zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(refused[1], zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(refused[2], zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_EQ(refused[3], zym::ZYM_E_NOT_SUPPORTED);
}

}  // namespace
