// A module as an object, by each of its providers.
#include "process_manager/memory/process_module.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "support/fake_procfs_parser.h"
#include "support/fake_services.h"
#include "support/object_count.h"
#include "tests/process_manager/memory/mappings.h"
#include "zym/exception.h"

namespace qor::process_manager {
namespace {

using FromEnumerator =
    detail::ObjectInfo<FromEnumeratorModuleInfoProvider, ProcessModuleInfoBase, IProcessModule>;
using ByAddress = detail::ObjectInfo<ByAddressModuleInfoProvider, ProcessModuleInfoBase, IProcessModule>;

constexpr PidType kPid = 4'000'000;

class ProcessModule : public testing::Test {
 protected:
  ProcessModule() {
    m_parser->maps[kPid] =
        MapsOf({Mapping(0x1000, 0x3000, 0x20, "/lib/a library.so"),
                Mapping(0x3000, 0x4000, 0x02, "/lib/a library.so"), Mapping(0x8000, 0x9000, 0x20)});
    m_host.locator->Add(m_parser);
  }

  zym::intrusive_ptr<IProcessModule> Of(const procfs::MapsEntry& entry) {
    return zym::CreateObject<FromEnumerator>(zym::intrusive_ptr<zym::ITracer>(m_host.tracer), entry);
  }
  zym::intrusive_ptr<IProcessModule> At(std::uint64_t address, PidType pid = kPid) {
    return zym::CreateObject<ByAddress>(zym::intrusive_ptr<zym::ITracer>(m_host.tracer), m_host.locator.get(),
                                        pid, address);
  }
  std::string FailureAt(std::uint64_t address, PidType pid) {
    try {
      At(address, pid);
    } catch (const zym::CheckResultFailedException& e) {
      return zym::Utf16ToUtf8(e.Message()).value();
    } catch (const std::out_of_range& e) {
      return e.what();
    }
    return "nothing";
  }

  const test_support::ObjectCount m_objects;
  test_support::FakeHost m_host;
  zym::intrusive_ptr<test_support::FakeProcfsParser> m_parser =
      zym::CreateObject<test_support::FakeProcfsParser>();
};

TEST_F(ProcessModule, OfAnEntryTellsItsPathStartAndLength) {
  const auto module = Of(Mapping(0x7f0000001000, 0x7f0000005000, 0x20, "/lib/a library.so"));
  zym::types::string16_t path;
  EXPECT_EQ(module->GetImagePath(path), zym::ZYM_OK);
  EXPECT_EQ(path, u"/lib/a library.so");
  std::uint64_t base = 0;
  EXPECT_EQ(module->GetBaseAddress(base), zym::ZYM_OK);
  EXPECT_EQ(base, 0x7f0000001000U);
  std::uint64_t size = 0;
  EXPECT_EQ(module->GetSize(size), zym::ZYM_OK);
  EXPECT_EQ(size, 0x4000U);
  ProcessModuleInformation information;
  EXPECT_EQ(module->GetInformation(information), zym::ZYM_OK);
  EXPECT_EQ(information.imagePath, path);
  EXPECT_EQ(information.baseAddress, base);
  EXPECT_EQ(information.size, size);
}

TEST_F(ProcessModule, OfAnAnonymousEntryHasAnEmptyPath) {
  zym::types::string16_t path = u"before";
  EXPECT_EQ(Of(Mapping(0x1000, 0x2000, 0x20))->GetImagePath(path), zym::ZYM_OK);
  EXPECT_EQ(path, u"");
}

TEST_F(ProcessModule, EachOperationTracesItsSignature) {
  const auto module = Of(Mapping(0x1000, 0x2000, 0x20));
  zym::types::string16_t path;
  std::uint64_t number = 0;
  ProcessModuleInformation information;
  module->GetImagePath(path);
  module->GetBaseAddress(number);
  module->GetSize(number);
  module->GetInformation(information);
  for (const char* name : {"GetImagePath", "GetBaseAddress", "GetSize", "GetInformation"})
    EXPECT_TRUE(
        m_host.tracer->Has(800, std::string("qor::process_manager::ProcessModuleInfoBase::") + name + "("))
        << name;
}

TEST_F(ProcessModule, APathThatIsNoUtf8FailsAndTheRestIsKnown) {
  const auto module = Of(Mapping(0x1000, 0x2000, 0x20, "/tmp/\xff"));
  zym::types::string16_t path = u"before";
  EXPECT_EQ(module->GetImagePath(path), zym::ZYM_E_BAD_CAST);
  EXPECT_EQ(path, u"before");
  ProcessModuleInformation information{.imagePath = u"before", .baseAddress = 7, .size = 8};
  EXPECT_EQ(module->GetInformation(information), zym::ZYM_E_BAD_CAST);
  EXPECT_EQ(information.imagePath, u"before");
  EXPECT_EQ(information.baseAddress, 7U);
  std::uint64_t base = 0;
  EXPECT_EQ(module->GetBaseAddress(base), zym::ZYM_OK);
  EXPECT_EQ(base, 0x1000U);
}

TEST_F(ProcessModule, ByAddressIsTheMappingThatStartsThere) {
  ProcessModuleInformation information;
  EXPECT_EQ(At(0x1000)->GetInformation(information), zym::ZYM_OK);
  EXPECT_EQ(information.imagePath, u"/lib/a library.so");
  EXPECT_EQ(information.baseAddress, 0x1000U);
  EXPECT_EQ(information.size, 0x2000U);
}

TEST_F(ProcessModule, ByAddressNeedNotBeExecutable) {
  std::uint64_t size = 0;
  EXPECT_EQ(At(0x3000)->GetSize(size), zym::ZYM_OK);
  EXPECT_EQ(size, 0x1000U);
}

TEST_F(ProcessModule, ByAnAddressInsideAMappingIsNotFound) {
  EXPECT_EQ(FailureAt(0x1001, kPid), "map::at");
  EXPECT_EQ(FailureAt(0x2000, kPid), "map::at");
  EXPECT_EQ(FailureAt(0, kPid), "map::at");
  EXPECT_EQ(FailureAt(0xa000, kPid), "map::at");
}

TEST_F(ProcessModule, ByAddressFailsWithATextForEachStep) {
  EXPECT_EQ(FailureAt(0x1000, kPid + 1),
            "Expression failed. Failed procfs->GetMaps(4000001, maps): 0x8000004b (Unspecified error)");
  m_host.locator->FailWith(procfs::IParser::kIid, zym::ZYM_E_LOCKED);
  EXPECT_EQ(FailureAt(0x1000, kPid),
            "Expression failed. Failed to load procfs::IParser: 0x8000004f (Locked)");
}

}  // namespace
}  // namespace qor::process_manager
