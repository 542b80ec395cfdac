// The manager of modules, and what its failures become.
#include "process_manager/memory/process_module_manager.h"

#include <gtest/gtest.h>

#include "process_manager/procfs/proc_parser.h"
#include "support/fake_procfs_parser.h"
#include "support/fake_services.h"
#include "support/object_count.h"
#include "tests/process_manager/memory/mappings.h"
#include "zym/exception.h"

namespace qor::process_manager {
namespace {

using namespace system_interceptors::process_manager;

constexpr PidType kPid = 4'000'000;

class ModuleManager : public testing::Test {
 protected:
  ModuleManager() {
    m_parser->maps[kPid] =
        MapsOf({Mapping(0x1000, 0x2000, 0x20, "/lib/a.so"), Mapping(0x2000, 0x3000, 0x04)});
    m_host.locator->Add(m_parser);
  }

  const test_support::ObjectCount m_objects;
  test_support::FakeHost m_host;
  zym::intrusive_ptr<test_support::FakeProcfsParser> m_parser =
      zym::CreateObject<test_support::FakeProcfsParser>();
  zym::intrusive_ptr<ProcessModuleManager> m_manager =
      zym::CreateObject<ProcessModuleManager>(m_host.locator.get());
};

TEST_F(ModuleManager, EnumeratesTheModulesOfAProcess) {
  zym::intrusive_ptr<IProcessModuleEnumerator> enumerator;
  ASSERT_EQ(m_manager->EnumerateModules(kPid, enumerator.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessModule> module;
  ASSERT_EQ(enumerator->Next(module.Ref()), zym::ZYM_OK);
  zym::types::string16_t path;
  EXPECT_EQ(module->GetImagePath(path), zym::ZYM_OK);
  EXPECT_EQ(path, u"/lib/a.so");
  EXPECT_EQ(enumerator->Next(module.Ref()), zym::ZYM_FALSE);
}

TEST_F(ModuleManager, AnEnumeratorThatCannotBeMadeIsTracedWithThePid) {
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IProcessModuleEnumerator*>(&sentinel);
  IProcessModuleEnumerator* enumerator = untouched;
  EXPECT_EQ(m_manager->EnumerateModules(kPid + 1, &enumerator), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(enumerator, untouched);
  EXPECT_TRUE(
      m_host.tracer->Has(300,
                         "Failed to create process module enumerator error for pid 4000001: Expression "
                         "failed. Failed procfs->GetMaps(4000001, maps): 0x8000004b (Unspecified error)"));
}

TEST_F(ModuleManager, TheKernelsModulesAreNotSupported) {
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IProcessModuleEnumerator*>(&sentinel);
  IProcessModuleEnumerator* enumerator = untouched;
  EXPECT_EQ(static_cast<std::uint32_t>(m_manager->EnumerateModules(0, &enumerator)), 0x80000042U);
  EXPECT_EQ(enumerator, untouched);
}

TEST_F(ModuleManager, GivesTheModuleAtTheExactStartOfAMappingExecutableOrNot) {
  for (const std::uint64_t address : {0x1000U, 0x2000U}) {
    zym::intrusive_ptr<IProcessModule> module;
    ASSERT_EQ(m_manager->GetModule(kPid, address, module.Ref()), zym::ZYM_OK);
    std::uint64_t base = 0;
    EXPECT_EQ(module->GetBaseAddress(base), zym::ZYM_OK);
    EXPECT_EQ(base, address);
  }
}

TEST_F(ModuleManager, OneAboveTheStartOfAMappingThereIsNoModule) {
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IProcessModule*>(&sentinel);
  IProcessModule* module = untouched;
  EXPECT_EQ(static_cast<std::uint32_t>(m_manager->GetModule(kPid, 0x1001, &module)), 0x8000005eU);
  EXPECT_EQ(module, untouched);
  EXPECT_TRUE(m_host.tracer->Has(300, "ProcessModuleManager::GetModuleModules error: map::at"));
}

// It has no meaning of its own here: the maps of pid 0 are read, and there are none.
TEST_F(ModuleManager, GetModuleOfPidZeroFails) {
  m_host.locator->Add(zym::CreateObject<procfs::ProcParser>(m_host.locator.get()));
  zym::intrusive_ptr<IProcessModule> module;
  EXPECT_EQ(static_cast<std::uint32_t>(m_manager->GetModule(0, 0x1000, module.Ref())), 0x8000005eU);
  EXPECT_TRUE(m_host.tracer->Has(500, "Warning: Kernel statistic is not implemented"));
}

TEST_F(ModuleManager, NeedsAnAllocatorAndATracer) {
  for (const zym::iid_t iid : {zym::IAllocator::kIid, zym::ITracer::kIid}) {
    const test_support::FakeHost host;
    host.locator->Remove(iid);
    EXPECT_THROW(static_cast<void>(zym::CreateObject<ProcessModuleManager>(host.locator.get())),
                 zym::GetInterfaceException);
  }
}

}  // namespace
}  // namespace qor::process_manager
