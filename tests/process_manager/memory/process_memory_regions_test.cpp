// The rule by which regions are found among mappings.
#include "process_manager/memory/process_memory_regions.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/fake_services.h"
#include "support/object_count.h"
#include "tests/process_manager/memory/mappings.h"

namespace qor::process_memory_manager {
namespace {

using process_manager::Mapping;
using process_manager::MapsOf;
using Region = ProcessMemoryRegionInformation;

class MemoryRegions : public testing::Test {
 protected:
  zym::result_t Query(std::uint64_t address, Region& region) {
    return QueryRegion(m_host.tracer.get(), m_maps, address, region);
  }
  // The base of the region for `address`; 0: there is none.
  std::uint64_t BaseFor(std::uint64_t address) {
    Region region;
    return Query(address, region) == zym::ZYM_OK ? region.baseAddress : 0;
  }
  zym::result_t Path(std::uint64_t address, zym::types::string16_t& path) {
    return QueryMappedFilePath(m_host.tracer.get(), m_maps, address, path);
  }

  const test_support::ObjectCount m_objects;
  test_support::FakeHost m_host;
  procfs::Maps m_maps = MapsOf({Mapping(0x1000, 0x3000, 0x20, "/bin/program"), Mapping(0x3000, 0x4000, 0x04),
                                Mapping(0x8000, 0x9000, 0x02, "/lib/a library")});
};

TEST_F(MemoryRegions, OfNoMappingsThereAreNone) {
  m_maps.clear();
  Region region{.baseAddress = 7};
  EXPECT_EQ(static_cast<std::uint32_t>(Query(0, region)), 0x80000046U);
  EXPECT_EQ(region.baseAddress, 7U) << "left alone";
}

TEST_F(MemoryRegions, TheExactStartOfTheFirstMappingGivesIt) {
  Region region;
  ASSERT_EQ(Query(0x1000, region), zym::ZYM_OK);
  EXPECT_EQ(region.baseAddress, 0x1000U);
  EXPECT_EQ(region.allocationBase, 0x1000U);
  EXPECT_EQ(region.size, 0x2000U);
  EXPECT_EQ(region.protection, 0x20U);
  EXPECT_EQ(region.allocationProtection, 0x20U);
  EXPECT_EQ(region.state, 3U);
  EXPECT_EQ(region.type, 1U);
}

TEST_F(MemoryRegions, OneAboveTheStartOfTheFirstMappingGivesTheSecond) {
  EXPECT_EQ(BaseFor(0x1001), 0x3000U);
}

// Meant: the answer for an address is the first mapping that begins at or above it.
TEST_F(MemoryRegions, AnAddressInsideAMappingGivesTheMappingAfterIt) {
  EXPECT_EQ(BaseFor(0x2000), 0x3000U);
  EXPECT_EQ(BaseFor(0x2fff), 0x3000U);
  EXPECT_EQ(BaseFor(0x3800), 0x8000U);
}

TEST_F(MemoryRegions, AnAddressInAHoleGivesTheMappingBehindIt) {
  EXPECT_EQ(BaseFor(0), 0x1000U);
  EXPECT_EQ(BaseFor(0x4000), 0x8000U);
}

TEST_F(MemoryRegions, AnAddressAboveTheLastStartGivesNothingThoughItIsMapped) {
  Region region;
  EXPECT_EQ(static_cast<std::uint32_t>(Query(0x8001, region)), 0x80000046U);
  EXPECT_EQ(static_cast<std::uint32_t>(Query(0xffffffffffffffff, region)), 0x80000046U);
}

TEST_F(MemoryRegions, AMappingThatEndsBelowTheAddressGivesTheGapBehindIt) {
  m_maps = MapsOf({Mapping(0x5000, 0x2000, 0x20), Mapping(0x9000, 0xa000, 0x04)});
  Region region;
  ASSERT_EQ(Query(0x5000, region), zym::ZYM_OK);
  EXPECT_EQ(region.baseAddress, 0x2000U);
  EXPECT_EQ(region.allocationBase, 0x2000U);
  EXPECT_EQ(region.size, 0x4000U) << "from the one begin to the next";
  EXPECT_EQ(region.protection, 1U);
  EXPECT_EQ(region.allocationProtection, 1U);
  EXPECT_EQ(region.state, 0U);
  EXPECT_EQ(region.type, 0U);
}

TEST_F(MemoryRegions, BehindTheLastMappingThatEndsBelowTheAddressThereIsNoGap) {
  m_maps = MapsOf({Mapping(0x5000, 0x2000, 0x20)});
  Region region{.baseAddress = 7};
  EXPECT_EQ(static_cast<std::uint32_t>(Query(0x5000, region)), 0x80000046U);
  EXPECT_EQ(region.baseAddress, 7U);
}

TEST_F(MemoryRegions, AnAnswerIsTraced) {
  EXPECT_EQ(BaseFor(0x1000), 0x1000U);
  EXPECT_TRUE(
      m_host.tracer->Has(800, "ProcessMemory::QueryRegion(): 4096 8192, state: 3, type: 1, protection: 32"));
  m_host.tracer->Clear();
  EXPECT_EQ(BaseFor(0x9000), 0U);
  EXPECT_TRUE(m_host.tracer->Records().empty());
}

TEST_F(MemoryRegions, ThePathIsThatOfTheRegionWhichTheRuleGives) {
  zym::types::string16_t path;
  EXPECT_EQ(Path(0x1000, path), zym::ZYM_OK);
  EXPECT_EQ(path, u"/bin/program");
  EXPECT_EQ(Path(0x3001, path), zym::ZYM_OK);
  EXPECT_EQ(path, u"/lib/a library") << "of the mapping after it";
}

TEST_F(MemoryRegions, ThePathOfAnAnonymousMappingIsEmpty) {
  zym::types::string16_t path = u"before";
  EXPECT_EQ(Path(0x3000, path), zym::ZYM_OK);
  EXPECT_EQ(path, u"");
}

TEST_F(MemoryRegions, ThePathAboveTheLastStartCannotBeHad) {
  zym::types::string16_t path = u"before";
  EXPECT_EQ(static_cast<std::uint32_t>(Path(36864, path)), 0x80000046U);
  EXPECT_EQ(path, u"before");
  EXPECT_TRUE(m_host.tracer->Has(300, "Failed to query memory region at address36864: 0x80000046"));
}

TEST_F(MemoryRegions, ThePathOfAGapCannotBeHad) {
  m_maps = MapsOf({Mapping(0x5000, 0x2000, 0x20), Mapping(0x9000, 0xa000, 0x04)});
  zym::types::string16_t path;
  EXPECT_EQ(static_cast<std::uint32_t>(Path(0x5000, path)), 0x8000005eU);
  EXPECT_TRUE(m_host.tracer->Has(300, "map::at"));
}

TEST_F(MemoryRegions, APathThatIsNoUtf8CannotBeHad) {
  m_maps = MapsOf({Mapping(0x1000, 0x2000, 0x20, "/tmp/\xff")});
  zym::types::string16_t path = u"before";
  EXPECT_EQ(Path(0x1000, path), zym::ZYM_E_BAD_CAST);
  EXPECT_EQ(path, u"before");
}

TEST_F(MemoryRegions, OfSeveralMappingsWithOneStartTheFirstCounts) {
  m_maps = MapsOf({Mapping(0x1000, 0x2000, 0x20, "/first"), Mapping(0x1000, 0x3000, 0x04, "/second")});
  Region region;
  ASSERT_EQ(Query(0x1000, region), zym::ZYM_OK);
  EXPECT_EQ(region.size, 0x1000U);
  EXPECT_EQ(MappingAt(m_maps, 0x1000).path, "/first");
  EXPECT_THROW(MappingAt(m_maps, 0x1001), std::out_of_range);
}

}  // namespace
}  // namespace qor::process_memory_manager
