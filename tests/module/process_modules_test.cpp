// The code that is loaded in a real process, through the module as a host uses it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "module/module_host.h"
#include "process_manager/process_modules.h"
#include "support/memory_actor.h"
#include "zym/utf.h"

namespace {

using namespace test_support;
using namespace system_interceptors::process_manager;

// Path, base, size.
using Row = std::tuple<std::string, std::uint64_t, std::uint64_t>;

class ModuleProcessModules : public testing::Test {
 protected:
  ModuleProcessModules() {
    EXPECT_EQ(m_host.module.Make(qor::class_ids::kProcessModuleManager, m_host.host.locator.get(), m_manager),
              zym::ZYM_OK);
  }

  static Row RowOf(IProcessModule& module) {
    ProcessModuleInformation information;
    EXPECT_EQ(module.GetInformation(information), zym::ZYM_OK);
    return {zym::Utf16ToUtf8(information.imagePath).value(), information.baseAddress, information.size};
  }
  std::vector<Row> Walk(std::uint32_t pid) {
    zym::intrusive_ptr<IProcessModuleEnumerator> enumerator;
    EXPECT_EQ(m_manager->EnumerateModules(pid, enumerator.Ref()), zym::ZYM_OK);
    std::vector<Row> rows;
    zym::intrusive_ptr<IProcessModule> module;
    while (enumerator->Next(module.Ref()) == zym::ZYM_OK) rows.push_back(RowOf(*module));
    return rows;
  }

  ModuleHost m_host;
  zym::intrusive_ptr<IProcessModuleManager> m_manager;
};

TEST_F(ModuleProcessModules, AreTheExecutableEntriesOfTheMapsFile) {
  const MemoryActor actor;
  std::vector<Row> expected;
  for (const MapsLine& line : ReadMaps(actor.Pid()))
    if (line.permissions[2] == 'x' && line.permissions.substr(0, 3) != "-wx")
      expected.emplace_back(line.path, line.begin, line.end - line.begin);
  EXPECT_GE(expected.size(), 5U);
  EXPECT_EQ(Walk(actor.Pid()), expected);
}

TEST_F(ModuleProcessModules, ALibraryThatIsMappedExecutableTwiceIsListedTwice) {
  const MemoryActor actor;
  std::vector<std::uint64_t> bases;
  for (const auto& [path, base, size] : Walk(actor.Pid()))
    if (path == actor.File()) bases.push_back(base);
  const auto libraries = actor.All("library");
  ASSERT_EQ(libraries.size(), 2U);
  EXPECT_EQ(bases, (std::vector<std::uint64_t>{libraries[0].address, libraries[1].address}));
}

TEST_F(ModuleProcessModules, AMappingWithWriteAndExecuteOnlyIsNone) {
  const MemoryActor actor;
  const auto is = [&](const char* name) {
    for (const auto& [path, base, size] : Walk(actor.Pid()))
      if (base == actor.Get(name).address) return true;
    return false;
  };
  EXPECT_FALSE(is("write-execute"));
  EXPECT_TRUE(is("anonymous-code"));
}

TEST_F(ModuleProcessModules, ResetGivesTheFirstAgainAndAModuleOutlivesItsEnumeratorAndItsProcess) {
  MemoryActor actor;
  zym::intrusive_ptr<IProcessModuleEnumerator> enumerator;
  ASSERT_EQ(m_manager->EnumerateModules(actor.Pid(), enumerator.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessModule> first;
  zym::intrusive_ptr<IProcessModule> again;
  ASSERT_EQ(enumerator->Next(first.Ref()), zym::ZYM_OK);
  actor.End();
  EXPECT_EQ(enumerator->Reset(), zym::ZYM_OK);
  ASSERT_EQ(enumerator->Next(again.Ref()), zym::ZYM_OK);
  enumerator.Reset();
  EXPECT_EQ(RowOf(*first), RowOf(*again));
}

TEST_F(ModuleProcessModules, GetModuleTakesTheExactStartOfAnyMapping) {
  const MemoryActor actor;
  for (const char* name : {"file", "low", "library", "write-execute"}) {
    zym::intrusive_ptr<IProcessModule> module;
    const std::uint64_t address = actor.Get(name).address;
    ASSERT_EQ(m_manager->GetModule(actor.Pid(), address, module.Ref()), zym::ZYM_OK) << name;
    EXPECT_EQ(std::get<1>(RowOf(*module)), address);
    EXPECT_EQ(static_cast<std::uint32_t>(m_manager->GetModule(actor.Pid(), address + 1, module.Ref())),
              0x8000005eU)
        << name;
  }
}

TEST_F(ModuleProcessModules, OfTheKernelAndOfAProcessThatIsGone) {
  zym::intrusive_ptr<IProcessModuleEnumerator> enumerator;
  EXPECT_EQ(static_cast<std::uint32_t>(m_manager->EnumerateModules(0, enumerator.Ref())), 0x80000042U);
  zym::intrusive_ptr<IProcessModule> module;
  EXPECT_LT(m_manager->GetModule(0, 0x1000, module.Ref()), 0);
  MemoryActor actor;
  const std::uint32_t pid = actor.Pid();
  actor.End();
  EXPECT_EQ(static_cast<std::uint32_t>(m_manager->EnumerateModules(pid, enumerator.Ref())), 0x8000004bU);
  EXPECT_EQ(static_cast<std::uint32_t>(m_manager->GetModule(pid, 0x1000, module.Ref())), 0x8000004bU);
}

}  // namespace
