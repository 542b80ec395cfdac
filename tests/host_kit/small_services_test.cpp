// The services of the kit that are a few lines each.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "host_kit/callback_tracer.h"
#include "host_kit/category_filter.h"
#include "host_kit/default_services.h"
#include "host_kit/feature_lookup.h"
#include "host_kit/malloc_allocator.h"
#include "host_kit/null_metrics.h"
#include "host_kit/scan_statistics.h"
#include "host_kit/service_names.h"
#include "zym/trace.h"

namespace {

TEST(MallocAllocator, MemoryGrowsWithItsContent) {
  const auto allocator = zym::CreateObject<host_kit::MallocAllocator>();
  void* memory = allocator->Alloc(4);
  ASSERT_NE(memory, nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0U);
  std::memcpy(memory, "abc", 4);
  memory = allocator->Reallocate(memory, 100'000);
  ASSERT_NE(memory, nullptr);
  EXPECT_STREQ(static_cast<const char*>(memory), "abc");
  allocator->Free(memory);
}

class CallbackTracerTest : public testing::Test {
 protected:
  zym::intrusive_ptr<host_kit::CallbackTracer> Make(std::uint32_t ceiling) {
    return zym::CreateObject<host_kit::CallbackTracer>(
        ceiling, [this](std::uint32_t level, std::string_view text) { m_records.emplace_back(level, text); });
  }

  std::vector<std::pair<std::uint32_t, std::string>> m_records;
};

TEST_F(CallbackTracerTest, ARecordComesWithItsLevelAndItsText) {
  const auto tracer = Make(zym::trace::kWarning);
  ZYM_TRACE(tracer.get(), zym::trace::kFailure, "number " << 7);
  ASSERT_EQ(m_records.size(), 1U);
  EXPECT_EQ(m_records[0], std::pair(zym::trace::kFailure, std::string("number 7")));
}

TEST_F(CallbackTracerTest, ARecordThatGrowsKeepsItsLevelAndItsText) {
  const auto tracer = Make(zym::trace::kWarning);
  const std::string text(100'000, 'x');
  ZYM_TRACE(tracer.get(), zym::trace::kWarning, "begin " << text);
  ASSERT_EQ(m_records.size(), 1U);
  EXPECT_EQ(m_records[0].first, zym::trace::kWarning);
  EXPECT_EQ(m_records[0].second, "begin " + text);
}

TEST_F(CallbackTracerTest, ARecordAboveTheCeilingIsNotMade) {
  const auto tracer = Make(zym::trace::kWarning);
  void* buffer = nullptr;
  EXPECT_EQ(tracer->GetRecord(zym::trace::kWarning + 1, &buffer, 10), zym::ZYM_E_NOT_MATCHED);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(*tracer->GetLevelPtr(), zym::trace::kWarning);
}

TEST(CategoryFilter, SensitiveTextIsHeldBackUnlessItIsAllowed) {
  constexpr std::uint32_t kSensitive = zym::ITracerCategoryFilter::kSensitive;
  EXPECT_EQ(zym::CreateObject<host_kit::CategoryFilter>(false)->Check(kSensitive), zym::ZYM_FALSE);
  EXPECT_EQ(zym::CreateObject<host_kit::CategoryFilter>(true)->Check(kSensitive), zym::ZYM_OK);
  EXPECT_EQ(zym::CreateObject<host_kit::CategoryFilter>(false)->Check(kSensitive + 1), zym::ZYM_OK);
}

TEST(FeatureLookup, ASwitchHasTheValueThatItWasGiven) {
  const auto lookup =
      zym::CreateObject<host_kit::FeatureLookup>(std::map<std::string, bool>{{"on", true}, {"off", false}});
  bool value = false;
  EXPECT_EQ(lookup->GetBoolean("on", &value), zym::ZYM_OK);
  EXPECT_TRUE(value);
  EXPECT_EQ(lookup->GetBoolean("off", &value), zym::ZYM_OK);
  EXPECT_FALSE(value);
}

TEST(FeatureLookup, AnUnknownSwitchLeavesTheValueAlone) {
  bool value = true;
  EXPECT_EQ(zym::CreateObject<host_kit::FeatureLookup>()->GetBoolean("on", &value), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(value);
}

TEST(NullMetrics, ATableHasAllItsMetricsAndTheTextIsEmpty) {
  const auto metrics = zym::CreateObject<host_kit::NullMetrics>();
  zym::telemetry::TableMetrics table;
  ASSERT_EQ(metrics->GetTableMetrics("process_cache", table), zym::ZYM_OK);
  ASSERT_TRUE(table.size && table.hits && table.misses);
  table.size->Set(1);
  table.hits->Increment();
  table.misses->Reset();
  zym::types::string_t text("old");
  EXPECT_EQ(metrics->GetText(text), zym::ZYM_OK);
  EXPECT_EQ(text, "");
}

TEST(ScanStatistics, EachReportCounts) {
  const auto statistics = zym::CreateObject<host_kit::ScanStatistics>();
  EXPECT_EQ(statistics->RegisterScannedProcessFilePath(u"/bin/a"), zym::ZYM_OK);
  EXPECT_EQ(statistics->RegisterScannedProcessFilePath(u"/bin/a"), zym::ZYM_OK);
  EXPECT_EQ(statistics->GetCount(), 2U);
}

TEST(ServiceNames, AServiceOfTheSdkGoesByItsNameAndItsId) {
  EXPECT_EQ(host_kit::DescribeService(zym::ITracer::kIid), "zym::ITracer (0x6ef3329b)");
  EXPECT_EQ(host_kit::DescribeService(0x1234), "interface 0x00001234");
}

}  // namespace
