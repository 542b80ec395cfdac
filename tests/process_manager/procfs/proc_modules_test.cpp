// Kernel modules and their sections, from trees that a test makes.
#include "process_manager/procfs/proc_modules.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "process_manager/procfs/proc_parser.h"
#include "support/fake_services.h"
#include "support/fresh_process.h"
#include "support/rights.h"
#include "support/temp_directory.h"
#include "support/unshare_mounts.h"
#include "zym/exception.h"
#include "zym/module_counter.h"

namespace qor::procfs {
namespace {

using test_support::InFreshProcess;
using test_support::TempDirectory;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr std::uint64_t kFarEnd = 0xffffffffff000000;

class RootedParser : public ProcParser {
 public:
  RootedParser(zym::IServiceLocator* locator, NativePath root)
      : ProcParser(locator), m_root(std::move(root)) {}

  const NativePath& GetProcRoot() const override { return m_root; }

 private:
  NativePath m_root;
};

struct Setting {
  ~Setting() {
    parser.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), objects);
  }

  test_support::RecordingTracer& Trace() const { return *host.tracer; }
  bool Traced(std::uint32_t level, const std::string& text) const {
    const auto records = host.tracer->Records();
    return std::ranges::any_of(
        records, [&](const auto& record) { return record.level == level && record.text == text; });
  }
  void WriteSettings() const {
    tree.Write("sys/kernel/kptr_restrict", "2\n");
    tree.Write("sys/kernel/perf_event_paranoid", "3\n");
  }
  void ExpectSettingsAsBefore() const {
    EXPECT_EQ(test_support::ReadTextFile(tree.Place("sys/kernel/kptr_restrict")), "2\n");
    EXPECT_EQ(test_support::ReadTextFile(tree.Place("sys/kernel/perf_event_paranoid")), "3\n");
  }

  test_support::FakeHost host;
  TempDirectory tree;
  std::int32_t objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<RootedParser> parser = zym::CreateObject<RootedParser>(host.locator.get(), tree.Path());
};

std::vector<std::string> NamesOf(const ModulesList& modules) {
  std::vector<std::string> names;
  for (const ModuleEntry& module : modules) names.push_back(module.name);
  return names;
}

// --- GetModules ---

class GetModulesTest : public ::testing::Test, protected Setting {};

constexpr const char* kWillTry =
    "will try to read with kptr_restrict set to 0 and perf_event_paranoid set to 1";

TEST_F(GetModulesTest, TakesTheLinesAndSkipsOneWithFiveColumns) {
  tree.Write(
      "modules",
      "zram 40960 2 lzo,zstd, Live 0xffffffffc0a3b000\nfive 1 2 - Live\ndummy 16384 0 - Loading 0x10\n");
  ModulesList modules = {{.name = "old"}};
  ASSERT_EQ(parser->GetModules(modules), zym::ZYM_OK);
  EXPECT_THAT(NamesOf(modules), ElementsAre("old", "zram", "dummy"));
  EXPECT_TRUE(Traced(800, "Skipped line: five 1 2 - Live"));
  EXPECT_TRUE(Traced(800,
                     "zym::result_t qor::procfs::ProcParser::GetModules(qor::procfs::ModulesList&, bool), "
                     "allowZeroModuleOffset is false"));
  EXPECT_FALSE(Trace().Has(kWillTry));
}

TEST_F(GetModulesTest, ALineThatCannotBeConvertedIsSkipped) {
  tree.Write("modules", "a x 2 - Live 0x10\nb 1 2 - Live words\nc 1 2 - Live 0x10\n");
  ModulesList modules;
  ASSERT_EQ(parser->GetModules(modules), zym::ZYM_OK);
  EXPECT_THAT(NamesOf(modules), ElementsAre("c"));
  EXPECT_TRUE(Traced(800, "Skipped line: a x 2 - Live 0x10"));
  EXPECT_TRUE(Traced(800, "Skipped line: b 1 2 - Live words"));
}

TEST_F(GetModulesTest, AFileThatCannotBeOpenedIsAnError) {
  ModulesList modules;
  EXPECT_EQ(parser->GetModules(modules), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(Traced(300, "Unable to open " + tree.Path() + "/modules"));
  EXPECT_FALSE(Trace().Has(kWillTry)) << "raised rights wouldn't help";
}

TEST_F(GetModulesTest, AHiddenOffsetStartsTheGuardedRetryAndRestoresTheSettings) {
  WriteSettings();
  tree.Write("modules", "zram 40960 2 - Live 0x0000000000000000\ndummy 16384 0 - Live 0x0000000000000000\n");
  ModulesList modules;
  ASSERT_EQ(parser->GetModules(modules), zym::ZYM_OK);
  EXPECT_THAT(NamesOf(modules), ElementsAre("zram", "dummy")) << "offsets of 0 are taken then";
  ExpectSettingsAsBefore();
  std::vector<std::string> texts;
  for (const auto& record : Trace().Records()) {
    EXPECT_EQ(record.level, 800U);
    texts.push_back(record.text);
  }
  EXPECT_THAT(texts, ElementsAre(HasSubstr(", allowZeroModuleOffset is false"),
                                 "bad offset, need call with allowZeroModuleOffset as true", kWillTry,
                                 HasSubstr(", allowZeroModuleOffset is true")));
}

// The list isn't cleared in between: that is meant.
TEST_F(GetModulesTest, WhatCameBeforeTheHiddenOffsetIsThereTwice) {
  WriteSettings();
  tree.Write("modules", "zram 40960 2 - Live 0x10\nhidden 1 0 - Live 0x0\ndummy 16384 0 - Live 0x20\n");
  ModulesList modules;
  ASSERT_EQ(parser->GetModules(modules), zym::ZYM_OK);
  EXPECT_THAT(NamesOf(modules), ElementsAre("zram", "zram", "hidden", "dummy"));
}

TEST_F(GetModulesTest, ExceptionsOfTheSettingsPassThrough) {
  tree.Write("modules", "zram 40960 2 - Live 0x0\n");
  ModulesList modules;
  EXPECT_THROW(parser->GetModules(modules), zym::CheckFailedException);
  tree.Write("sys/kernel/kptr_restrict", "2\n");
  EXPECT_THROW(parser->GetModules(modules), zym::CheckFailedException);
  EXPECT_EQ(test_support::ReadTextFile(tree.Place("sys/kernel/kptr_restrict")), "2\n");
}

// --- sections ---

class ModulesSectionsTest : public ::testing::Test, protected Setting {
 protected:
  zym::result_t Read(const ModulesList& modules, std::uint64_t end = kFarEnd) {
    return ReadModulesSections(host.tracer.get(), tree.Path(), modules, sections, end);
  }
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const ModuleSection& section : sections) names.push_back(section.name);
    return names;
  }
  std::string Path(const std::string& name) const { return tree.Path() + "/" + name; }

  ModulesSections sections;
};

TEST_F(ModulesSectionsTest, KeepsCodeAndDataByPartOfTheNameAndLeavesTheRest) {
  for (const auto& [name, address] : {std::pair{".text", "0x1000"},
                                      {".init.text", "0x9000"},
                                      {".rodata.str1.1", "0x2000"},
                                      {".data", "0x3000"},
                                      {".bss", "0x4000"},
                                      {".init.data", "0x5000"},
                                      {".text.unlikely", "0x6000"},
                                      {".symtab", "0x7000"},
                                      {"__ksymtab", "0x8000"},
                                      {".exit.text", "0x8800"}})
    tree.Write(std::string("zram/sections/") + name, std::string(address) + "\n");
  ASSERT_EQ(Read({{.name = "zram", .size = 0x100, .offset = 0x1000}}), zym::ZYM_OK);
  EXPECT_THAT(Names(), ElementsAre(".text", ".rodata.str1.1", ".data", ".bss", ".init.data", ".text.unlikely",
                                   ".exit.text"));
  EXPECT_TRUE(Traced(800, "GetModulesSections: Section sysfs path: " + Path("zram/sections")));
  EXPECT_TRUE(Traced(800, "ParseModuleSections: Skip section: .init.text"));
  EXPECT_TRUE(Traced(800, "ParseModuleSections: Skip section: __ksymtab"));
  EXPECT_TRUE(Traced(800, "Module section info path: " + Path("zram/sections/.text")));
  EXPECT_TRUE(Traced(800, "Section base virtual address: 1000"));
  EXPECT_TRUE(Traced(800, "Module section start virtual address: '1000, size: 256 bytes."));
  EXPECT_FALSE(Trace().Has("Module section info path: " + Path("zram/sections/.init.text")));
}

TEST_F(ModulesSectionsTest, WalksRecursively) {
  tree.Write("zram/sections/below/.text", "0x1000");
  ASSERT_EQ(Read({{.name = "zram", .size = 0x100}}), zym::ZYM_OK);
  EXPECT_THAT(Names(), ElementsAre(".text"));
}

TEST_F(ModulesSectionsTest, SectionsOfOneModuleShareACopyOfItsEntry) {
  tree.Write("zram/sections/.text", "0x1000");
  tree.Write("zram/sections/.data", "0x2000");
  const ModulesList modules = {
      {.name = "zram", .size = 0x100, .referenceCount = 7, .state = 1, .offset = 0x1000}};
  ASSERT_EQ(Read(modules), zym::ZYM_OK);
  ASSERT_EQ(sections.size(), 2U);
  EXPECT_EQ(sections[0].module, sections[1].module);
  EXPECT_NE(sections[0].module.get(), &modules[0]);
  EXPECT_EQ(sections[0].module->name, "zram");
  EXPECT_EQ(sections[0].module->referenceCount, 7U);
}

TEST_F(ModulesSectionsTest, ASectionBelowItsModuleIsDropped) {
  tree.Write("zram/sections/.text", "0xfff");
  tree.Write("zram/sections/.data", "0x1000");
  ASSERT_EQ(Read({{.name = "zram", .size = 0x100, .offset = 0x1000}}), zym::ZYM_OK);
  EXPECT_THAT(Names(), ElementsAre(".data"));
  EXPECT_TRUE(Traced(800, "GetModulesSections: Skip section: .text which is located outside module: zram"));
}

TEST_F(ModulesSectionsTest, IsSortedAndEachEndsWhereTheNextBegins) {
  tree.Write("second/sections/.text", "0x2000");
  tree.Write("first/sections/.text", "0x1000");
  tree.Write("first/sections/.data", "0x1800");
  ASSERT_EQ(Read({{.name = "second", .size = 0x1000}, {.name = "first", .size = 0x900}}, 0x2400),
            zym::ZYM_OK);
  std::vector<std::tuple<std::uint64_t, std::uint64_t, std::string>> got;
  for (const ModuleSection& section : sections)
    got.emplace_back(section.address, section.size, section.module->name);
  EXPECT_THAT(got, ElementsAre(std::tuple(0x1000, 0x800, "first"), std::tuple(0x1800, 0x800, "first"),
                               std::tuple(0x2000, 0x400, "second")));
  EXPECT_TRUE(Traced(800,
                     "Section: .text of mofule: 'first' with offset: 1000 is adjusted to fit the offset of "
                     "module's: 'first' section: .data which is: 1800"));
}

TEST_F(ModulesSectionsTest, ASectionThatEndsBeforeTheNextKeepsItsSize) {
  tree.Write("zram/sections/.text", "0x1000");
  tree.Write("zram/sections/.data", "0x2000");
  ASSERT_EQ(Read({{.name = "zram", .size = 0x100}}), zym::ZYM_OK);
  EXPECT_EQ(sections[0].size, 0x100U);
  EXPECT_EQ(sections[1].size, 0x100U);
  EXPECT_FALSE(Trace().Has("is adjusted"));
}

TEST_F(ModulesSectionsTest, OfTwoSectionsOfOneAddressTheFirstIsRemoved) {
  tree.Write("zram/sections/.text", "0x1000");
  tree.Write("other/sections/.data", "0x1000");
  ASSERT_EQ(Read({{.name = "zram", .size = 0x100}, {.name = "other", .size = 0x100}}), zym::ZYM_OK);
  EXPECT_THAT(Names(), ElementsAre(".data"));
  EXPECT_TRUE(Traced(800, "Module section start virtual address: '1000, size: 0 bytes."));
}

TEST_F(ModulesSectionsTest, TheLastOneBeyondTheEndHasNoRoomAndIsRemoved) {
  tree.Write("zram/sections/.text", "0x1000");
  tree.Write("zram/sections/.data", "0x3000");
  ASSERT_EQ(Read({{.name = "zram", .size = 0x100}}, 0x2000), zym::ZYM_OK);
  EXPECT_THAT(Names(), ElementsAre(".text"));
}

TEST_F(ModulesSectionsTest, NoModulesHaveNoSections) {
  EXPECT_EQ(Read({}), zym::ZYM_OK);
  EXPECT_THAT(sections, IsEmpty());
}

TEST_F(ModulesSectionsTest, ADirectoryThatCannotBeOpenedIsDenied) {
  EXPECT_EQ(Read({{.name = "zram"}}), zym::ZYM_E_ACCESS_DENIED);
  EXPECT_TRUE(Traced(300, "GetModulesSections: Cannot open directory '" + Path("zram/sections") + "'"));
}

struct BadSection {
  const char* what;
  const char* content;  // null: a link to nowhere
  std::uint32_t level;
  const char* message;
};

TEST_F(ModulesSectionsTest, ASectionThatCannotBeReadIsDeniedAndEndsTheWalk) {
  const BadSection cases[] = {
      {"missing", nullptr, 300, "Failed to open file"},
      {"empty", "", 300, "Failed to read section size"},
      {"words", "words\n", 300, "Failed to read section size"},
      {"hidden", "0x0000000000000000\n", 800, "bad offset, need call with allowZeroSectionOffset as true"},
  };
  for (const BadSection& bad : cases) {
    Trace().Clear();
    const std::string name = bad.what;
    const std::string path = tree.Place(name + "/sections/.text");
    if (bad.content == nullptr)
      ASSERT_EQ(::symlink("/no/such/file", path.c_str()), 0);
    else
      tree.Write(name + "/sections/.text", bad.content);
    EXPECT_EQ(Read({{.name = name, .size = 1}}), zym::ZYM_E_ACCESS_DENIED) << name;
    EXPECT_TRUE(Traced(bad.level, bad.message)) << name;
    EXPECT_THAT(Trace().Find("Failed to parse"),
                MatchesRegex(
                    "process_manager/procfs/proc_modules.cpp:[0-9]+\\(ParseModuleSections\\(GetTracer\\(\\), "
                    "enumerator, allowZeroOffset, sectionsInfo\\)\\),\\(ZYM_SUCCEEDED\\(_result\\)\\) "
                    "failed: result = 0x80000045 \\(Access denied\\) Failed to parse module " +
                    name + " sections"));
    EXPECT_THAT(sections, IsEmpty());
  }
}

// --- GetModulesSections, which reads "/sys/module" whatever the roots are ---

TEST_F(ModulesSectionsTest, AFailureOfTheSettingsPassesThrough) {
  EXPECT_THROW(parser->GetModulesSections({{.name = "no such module"}}, sections, kFarEnd),
               zym::CheckFailedException);
}

TEST_F(ModulesSectionsTest, ADeniedReadIsTriedOnceMoreUnderTheGuardsAndZeroIsDeniedAgain) {
  WriteSettings();
  EXPECT_EQ(parser->GetModulesSections({{.name = "no such module"}}, sections, kFarEnd),
            zym::ZYM_E_ACCESS_DENIED);
  EXPECT_TRUE(Traced(800, std::string("GetModulesSections: ") + kWillTry));
  ExpectSettingsAsBefore();
  const auto records = Trace().Records();
  EXPECT_EQ(std::ranges::count_if(records,
                                  [](const auto& record) {
                                    return record.text ==
                                           "GetModulesSections: Cannot open directory '/sys/module/no such "
                                           "module/sections'";
                                  }),
            2);
}

TEST_F(ModulesSectionsTest, TheSecondAttemptBeginsWithAnEmptyList) {
  WriteSettings();
  sections.push_back({.size = 1, .address = 1, .name = "old", .module = std::make_shared<ModuleEntry>()});
  EXPECT_EQ(parser->GetModulesSections({{.name = "no such module"}}, sections, kFarEnd),
            zym::ZYM_E_ACCESS_DENIED);
  EXPECT_THAT(sections, IsEmpty());
}

TEST(ModulesSections, AreReadBelowSysModule) {
  SKIP_IF(test_support::MissingMountRights());
  InFreshProcess([] {
    ASSERT_EQ(test_support::UnshareMounts(), nullptr);
    Setting setting;
    setting.tree.Write("zram/sections/.text", "0xffffffffc0000000\n");
    ASSERT_EQ(::mount(setting.tree.Path().c_str(), "/sys/module", nullptr, MS_BIND, nullptr), 0);
    ModulesSections sections;
    EXPECT_EQ(setting.parser->GetModulesSections({{.name = "zram", .size = 0x1000}}, sections, kFarEnd),
              zym::ZYM_OK);
    ASSERT_EQ(sections.size(), 1U);
    EXPECT_EQ(sections[0].address, 0xffffffffc0000000U);
    EXPECT_EQ(sections[0].size, 0x1000U);
    EXPECT_FALSE(setting.Trace().Has(kWillTry));
    ASSERT_EQ(::umount("/sys/module"), 0);
  });
}

}  // namespace
}  // namespace qor::procfs
