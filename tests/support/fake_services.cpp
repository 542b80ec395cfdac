#include "support/fake_services.h"

#include <algorithm>

namespace test_support {

zym::result_t RecordingTracer::GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) {
  const bool opening = *buffer == nullptr;
  if (opening) ++m_openCalls;
  if (opening && m_refusal != zym::ZYM_OK) return m_refusal;
  if (!opening && m_refuseGrowth) return zym::ZYM_E_OUT_OF_MEMORY;
  auto* const header = opening ? nullptr : static_cast<Header*>(*buffer) - 1;
  auto* const grown = static_cast<Header*>(std::realloc(header, sizeof(Header) + size));
  if (grown == nullptr) return zym::ZYM_E_OUT_OF_MEMORY;
  if (opening) {
    grown->level = level;
    ++m_openRecords;
  }
  *buffer = grown + 1;
  return zym::ZYM_OK;
}

void RecordingTracer::CommitRecord(void* buffer, std::uint64_t length) {
  auto* const header = static_cast<Header*>(buffer) - 1;
  {
    const std::scoped_lock lock(m_mutex);
    m_records.push_back({static_cast<std::uint32_t>(header->level),
                         {static_cast<const char*>(buffer), length},
                         std::this_thread::get_id()});
  }
  std::free(header);
  --m_openRecords;
}

std::vector<TraceRecord> RecordingTracer::Records() const {
  const std::scoped_lock lock(m_mutex);
  return m_records;
}

std::string RecordingTracer::Find(std::string_view text) const {
  const std::scoped_lock lock(m_mutex);
  for (const TraceRecord& record : m_records)
    if (record.text.find(text) != std::string::npos) return record.text;
  return {};
}

bool RecordingTracer::Has(std::uint32_t level, std::string_view text) const {
  const std::scoped_lock lock(m_mutex);
  return std::ranges::any_of(m_records, [&](const TraceRecord& record) {
    return record.level == level && record.text.find(text) != std::string::npos;
  });
}

void RecordingTracer::Clear() {
  const std::scoped_lock lock(m_mutex);
  m_records.clear();
}

void* CountingAllocator::Alloc(std::uint64_t size) {
  if (m_calls++ >= m_failFrom) return nullptr;
  void* const memory = MallocAllocator::Alloc(size);
  if (memory != nullptr) ++m_live;
  return memory;
}

void* CountingAllocator::Reallocate(void* p, std::uint64_t size) {
  if (p == nullptr) return Alloc(size);
  return m_calls++ >= m_failFrom ? nullptr : MallocAllocator::Reallocate(p, size);
}

void CountingAllocator::Free(void* p) {
  if (p == nullptr) return;
  --m_live;
  MallocAllocator::Free(p);
}

zym::result_t FakeLocator::GetInterface(zym::iid_t iid, std::uint32_t serviceKey, void** out) {
  {
    const std::scoped_lock lock(m_mutex);
    m_asked.insert(iid);
    if (const auto failure = m_failures.find(iid); failure != m_failures.end()) return failure->second;
  }
  return ServiceLocator::GetInterface(iid, serviceKey, out);
}

void FakeLocator::Add(zym::iid_t iid, zym::intrusive_ptr<zym::IObject> service) {
  {
    const std::scoped_lock lock(m_mutex);
    m_failures.erase(iid);
  }
  ServiceLocator::Add(iid, std::move(service));
}

void FakeLocator::FailWith(zym::iid_t iid, zym::result_t result) {
  const std::scoped_lock lock(m_mutex);
  m_failures[iid] = result;
}

void FakeLocator::Clear() {
  ServiceLocator::Clear();
  const std::scoped_lock lock(m_mutex);
  m_failures.clear();
  m_asked.clear();
}

std::set<zym::iid_t> FakeLocator::Asked() const {
  const std::scoped_lock lock(m_mutex);
  return m_asked;
}

zym::result_t FakeScanStatisticsCollector::RegisterScannedProcessFilePath(zym::types::string16_t&& path) {
  if (m_result != zym::ZYM_OK) return m_result;
  const std::scoped_lock lock(m_mutex);
  m_paths.emplace_back(path.begin(), path.end());
  return zym::ZYM_OK;
}

std::vector<std::u16string> FakeScanStatisticsCollector::Paths() const {
  const std::scoped_lock lock(m_mutex);
  return m_paths;
}

zym::result_t FakeFeatureLookup::GetBoolean(const char* name, bool* value) {
  const auto found = values.find(name);
  if (found == values.end()) return zym::ZYM_E_NOT_FOUND;
  *value = found->second;
  return zym::ZYM_OK;
}

zym::result_t FakeMetricSource::GetTableMetrics(const char*, zym::telemetry::TableMetrics& metrics) {
  metrics = {.size = size, .hits = hits, .misses = misses};
  return zym::ZYM_OK;
}

zym::result_t FakeMetricsRegistry::RegisterCollector(zym::telemetry::ICollector* collector,
                                                     std::uint64_t* token) {
  const std::scoped_lock lock(m_mutex);
  *token = ++m_lastToken;
  m_collectors.emplace(*token, zym::intrusive_ptr<zym::telemetry::ICollector>(collector));
  return zym::ZYM_OK;
}

zym::result_t FakeMetricsRegistry::UnregisterCollector(std::uint64_t token) {
  const std::scoped_lock lock(m_mutex);
  return m_collectors.erase(token) != 0 ? zym::ZYM_OK : zym::ZYM_E_NOT_FOUND;
}

void FakeMetricsRegistry::Collect() {
  const std::scoped_lock lock(m_mutex);
  for (const auto& [token, collector] : m_collectors) collector->Collect();
}

std::size_t FakeMetricsRegistry::Collectors() const {
  const std::scoped_lock lock(m_mutex);
  return m_collectors.size();
}

FakeHost::FakeHost()
    : tracer(zym::CreateObject<RecordingTracer>()),
      allocator(zym::CreateObject<CountingAllocator>()),
      categoryFilter(zym::CreateObject<FakeCategoryFilter>()),
      startupData(zym::CreateObject<FakeStartupDataProvider>()),
      scanStatistics(zym::CreateObject<FakeScanStatisticsCollector>()),
      metricSource(zym::CreateObject<FakeMetricSource>()),
      metricsRegistry(zym::CreateObject<FakeMetricsRegistry>()),
      locator(zym::CreateObject<FakeLocator>()) {
  locator->Add(tracer, zym::ITracer::kIid);
  locator->Add(allocator, zym::IAllocator::kIid);
  locator->Add(categoryFilter, zym::ITracerCategoryFilter::kIid);
  locator->Add(startupData, qor::IStartupDataProvider::kIid);
  locator->Add(scanStatistics, qor::IScanStatisticsCollector::kIid);
  locator->Add(metricSource, zym::telemetry::IMetricSource::kIid);
  locator->Add(metricsRegistry, zym::telemetry::IMetricsRegistry::kIid);
}

FakeHost::~FakeHost() {
  locator->Clear();
}

}  // namespace test_support
