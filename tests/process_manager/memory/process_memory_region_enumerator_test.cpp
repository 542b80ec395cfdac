// The walk over regions.
#include "process_manager/memory/process_memory_region_enumerator.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "support/fake_services.h"
#include "support/object_count.h"
#include "zym/generic_object_factory.h"

namespace qor::process_memory_manager {
namespace {

using namespace system_interceptors::process_memory_manager;

// Regions by their base, and a failure for one question.
class Memory : public zym::object::Ifaces<IProcessMemory> {
 public:
  zym::result_t QueryRegion(std::uint64_t address, ProcessMemoryRegionInformation& information) override {
    if (address == failAt) return zym::ZYM_E_LOCKED;
    const auto found = sizes.lower_bound(address);
    if (found == sizes.end()) return zym::ZYM_E_INVALID_ARGUMENT;
    information = {.baseAddress = found->first, .size = found->second};
    return zym::ZYM_OK;
  }
  zym::result_t EnumerateMemoryRegions(IProcessMemoryRegionEnumerator**) override {
    return zym::ZYM_E_UNEXPECTED;
  }
  zym::result_t QueryMappedFilePath(std::uint64_t, zym::types::string16_t&) const override {
    return zym::ZYM_E_UNEXPECTED;
  }
  zym::result_t ReadMemory(std::uint64_t, const zym::types::blob_range_t&) override {
    return zym::ZYM_E_UNEXPECTED;
  }
  zym::result_t WriteMemory(std::uint64_t, const zym::types::const_blob_range_t&) override {
    return zym::ZYM_E_UNEXPECTED;
  }

  std::map<std::uint64_t, std::uint64_t> sizes;
  std::uint64_t failAt = 1;
};

class RegionEnumerator : public testing::Test {
 protected:
  RegionEnumerator() {
    EXPECT_EQ(zym::CreateInstance(m_host.locator.get(), m_enumerator.Ref(),
                                  zym::intrusive_ptr<IProcessMemory>(m_memory)),
              zym::ZYM_OK);
  }

  // The bases up to the end.
  std::vector<std::uint64_t> Walk() {
    std::vector<std::uint64_t> bases;
    ProcessMemoryRegionInformation region;
    while (m_enumerator->Next(region) == zym::ZYM_OK) bases.push_back(region.baseAddress);
    return bases;
  }

  const test_support::ObjectCount m_objects;
  test_support::FakeHost m_host;
  zym::intrusive_ptr<Memory> m_memory = zym::CreateObject<Memory>();
  zym::intrusive_ptr<ProcessMemoryRegionEnumerator> m_enumerator;
};

TEST_F(RegionEnumerator, OverNoRegionsEndsAtOnce) {
  ProcessMemoryRegionInformation region{.baseAddress = 7};
  EXPECT_EQ(m_enumerator->Next(region), zym::ZYM_FALSE);
  EXPECT_EQ(region.baseAddress, 7U);
}

TEST_F(RegionEnumerator, VisitsEveryRegionByAscendingAddressWhetherTheyTouchOrNot) {
  m_memory->sizes = {{0x8000, 0x1000}, {0x1000, 0x2000}, {0x3000, 0x1000}};
  EXPECT_EQ(Walk(), (std::vector<std::uint64_t>{0x1000, 0x3000, 0x8000}));
  ProcessMemoryRegionInformation region;
  EXPECT_EQ(m_enumerator->Next(region), zym::ZYM_FALSE) << "each time";
}

TEST_F(RegionEnumerator, ResetBeginsAgain) {
  m_memory->sizes = {{0x1000, 0x2000}, {0x3000, 0x1000}};
  const auto first = Walk();
  EXPECT_EQ(m_enumerator->Reset(), zym::ZYM_OK);
  EXPECT_EQ(Walk(), first);
}

TEST_F(RegionEnumerator, AnotherFailureIsTracedAndReturnedAndTheCursorStays) {
  m_memory->sizes = {{0x1000, 0x2000}, {0x3000, 0x1000}};
  m_memory->failAt = 0x3000;
  ProcessMemoryRegionInformation region;
  ASSERT_EQ(m_enumerator->Next(region), zym::ZYM_OK);
  EXPECT_EQ(m_enumerator->Next(region), zym::ZYM_E_LOCKED);
  EXPECT_TRUE(m_host.tracer->Has(300, "(ZYM_SUCCEEDED(_result)) failed: result = 0x8000004f (Locked)"));
  m_memory->failAt = 1;
  EXPECT_EQ(m_enumerator->Next(region), zym::ZYM_OK);
  EXPECT_EQ(region.baseAddress, 0x3000U);
}

TEST_F(RegionEnumerator, KeepsTheMemoryUntilItsLastRelease) {
  EXPECT_EQ(m_memory->AddRef(), 3U);
  m_memory->Release();
  m_enumerator.Reset();
  EXPECT_EQ(m_memory->AddRef(), 2U);
  m_memory->Release();
  EXPECT_EQ(m_host.allocator->Live(), 0);
}

}  // namespace
}  // namespace qor::process_memory_manager
