// The walk over modules: which mappings are some.
#include "process_manager/memory/process_module_enumerator.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "process_manager/procfs/procfs_text.h"
#include "support/fake_procfs_parser.h"
#include "support/fake_services.h"
#include "support/object_count.h"
#include "tests/process_manager/memory/mappings.h"
#include "zym/exception.h"
#include "zym/utf.h"

namespace qor::process_manager {
namespace {

using namespace system_interceptors::process_manager;

constexpr PidType kPid = 4'000'000;

class ModuleEnumerator : public testing::Test {
 protected:
  ModuleEnumerator() { m_host.locator->Add(m_parser); }

  zym::intrusive_ptr<ProcessModuleEnumerator> Over(procfs::Maps maps) {
    m_parser->maps[kPid] = std::move(maps);
    return zym::CreateObject<ProcessModuleEnumerator>(m_host.locator.get(), kPid);
  }
  static std::vector<std::uint64_t> Walk(ProcessModuleEnumerator& enumerator) {
    std::vector<std::uint64_t> bases;
    zym::intrusive_ptr<IProcessModule> module;
    while (enumerator.Next(module.Ref()) == zym::ZYM_OK) {
      bases.emplace_back();
      EXPECT_EQ(module->GetBaseAddress(bases.back()), zym::ZYM_OK);
    }
    return bases;
  }

  const test_support::ObjectCount m_objects;
  test_support::FakeHost m_host;
  zym::intrusive_ptr<test_support::FakeProcfsParser> m_parser =
      zym::CreateObject<test_support::FakeProcfsParser>();
};

using Bases = std::vector<std::uint64_t>;

TEST_F(ModuleEnumerator, OverAProcessWithNoExecutableMappingsEndsAtTheFirstNext) {
  for (const auto& enumerator : {Over({}), Over(MapsOf({Mapping(0x1000, 0x2000, 0x04)}))}) {
    int sentinel = 0;
    auto* const untouched = reinterpret_cast<IProcessModule*>(&sentinel);
    IProcessModule* module = untouched;
    EXPECT_EQ(enumerator->Next(&module), zym::ZYM_FALSE);
    EXPECT_EQ(module, untouched);
    EXPECT_EQ(enumerator->Next(&module), zym::ZYM_FALSE) << "each time";
  }
}

TEST_F(ModuleEnumerator, TellsEveryMappingThatMayBeExecuted) {
  procfs::Maps maps;
  std::uint64_t address = 0x1000;
  for (std::uint32_t permissions = 0; permissions < 16; ++permissions, address += 0x1000)
    maps.merge(MapsOf({Mapping(address, address + 0x1000, procfs::ProtectionOf(permissions))}));
  // By permissions, where 4 is the right to execute: 4, 5, 7, 12, 13, 15.
  EXPECT_EQ(Walk(*Over(maps)), (Bases{0x5000, 0x6000, 0x8000, 0xd000, 0xe000, 0x10000}));
}

// Meant: the value of such a mapping is "no access".
TEST_F(ModuleEnumerator, AMappingWithWriteAndExecuteOnlyIsNoModule) {
  procfs::Maps maps;
  procfs::ParseMaps(
      "1000-2000 -wxp 00000000 00:00 0\n"
      "2000-3000 -wxs 00000000 00:00 0\n"
      "3000-4000 --xp 00000000 00:00 0\n",
      maps);
  EXPECT_EQ(Walk(*Over(maps)), Bases{0x3000});
}

TEST_F(ModuleEnumerator, ALibraryWithTwoExecutableMappingsIsListedTwice) {
  const auto enumerator = Over(
      MapsOf({Mapping(0x1000, 0x2000, 0x20, "/lib/twice.so"), Mapping(0x2000, 0x3000, 0x02, "/lib/twice.so"),
              Mapping(0x3000, 0x4000, 0x20, "/lib/twice.so")}));
  zym::intrusive_ptr<IProcessModule> modules[2];
  ProcessModuleInformation information[2];
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(enumerator->Next(modules[i].Ref()), zym::ZYM_OK);
    ASSERT_EQ(modules[i]->GetInformation(information[i]), zym::ZYM_OK);
  }
  EXPECT_EQ(information[0].imagePath, u"/lib/twice.so");
  EXPECT_EQ(information[1].imagePath, u"/lib/twice.so");
  EXPECT_EQ(information[0].baseAddress, 0x1000U);
  EXPECT_EQ(information[1].baseAddress, 0x3000U);
}

TEST_F(ModuleEnumerator, ResetGivesTheFirstModuleAgain) {
  const auto enumerator = Over(
      MapsOf({Mapping(0x1000, 0x2000, 0x04), Mapping(0x2000, 0x3000, 0x20), Mapping(0x3000, 0x4000, 0x10)}));
  EXPECT_EQ(Walk(*enumerator), (Bases{0x2000, 0x3000}));
  EXPECT_EQ(enumerator->Reset(), zym::ZYM_OK);
  EXPECT_EQ(Walk(*enumerator), (Bases{0x2000, 0x3000}));
}

TEST_F(ModuleEnumerator, IsASnapshot) {
  const auto enumerator = Over(MapsOf({Mapping(0x1000, 0x2000, 0x20)}));
  m_parser->maps.clear();
  EXPECT_EQ(Walk(*enumerator), Bases{0x1000});
  EXPECT_EQ(enumerator->Reset(), zym::ZYM_OK);
  EXPECT_EQ(Walk(*enumerator), Bases{0x1000});
}

TEST_F(ModuleEnumerator, AModuleOutlivesIt) {
  auto enumerator = Over(MapsOf({Mapping(0x1000, 0x2000, 0x20, "/lib/a.so")}));
  zym::intrusive_ptr<IProcessModule> module;
  ASSERT_EQ(enumerator->Next(module.Ref()), zym::ZYM_OK);
  enumerator.Reset();
  zym::types::string16_t path;
  EXPECT_EQ(module->GetImagePath(path), zym::ZYM_OK);
  EXPECT_EQ(path, u"/lib/a.so");
}

TEST_F(ModuleEnumerator, EachStepOfConstructionFailsWithATextOfItsOwn) {
  const auto failure = [this] {
    try {
      static_cast<void>(zym::CreateObject<ProcessModuleEnumerator>(m_host.locator.get(), kPid));
    } catch (const zym::CheckResultFailedException& e) {
      return zym::Utf16ToUtf8(e.Message()).value();
    }
    return std::string("nothing");
  };
  EXPECT_EQ(failure(),
            "Expression failed. Failed procfs->GetMaps(4000000, maps): 0x8000004b (Unspecified error)");
  m_host.locator->Remove(procfs::IParser::kIid);
  EXPECT_EQ(failure(),
            "Expression failed. Failed to load procfs::IParser: 0x80000001 (Interface not supported)");
  for (const zym::iid_t iid : {zym::IAllocator::kIid, zym::ITracer::kIid}) {
    const test_support::FakeHost host;
    host.locator->Remove(iid);
    EXPECT_THROW(static_cast<void>(zym::CreateObject<ProcessModuleEnumerator>(host.locator.get(), kPid)),
                 zym::GetInterfaceException);
  }
}

}  // namespace
}  // namespace qor::process_manager
