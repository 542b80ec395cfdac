#include "qor_common/feature_techs_aggregator.h"

#include <exception>
#include <utility>

#include "process_manager/services/product_values.h"
#include "process_manager/services/task_manager.h"
#include "qor_common/enum_names.h"
#include "qor_common/memory_scanning_task.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor {
namespace {

using zym::trace::kCall;

// A value that has no name is traced as a number: the host's tables may be newer than these. A trace never
// fails what it traces.
template <class E>
std::string NameOf(std::uint32_t value) {
  try {
    return EnumToString(static_cast<E>(value));
  } catch (const std::exception&) {
    return std::to_string(value);
  }
}

std::string FeatureName(std::uint32_t feature) {
  return NameOf<ReportFeatures::Type>(feature);
}
std::string TechName(std::uint32_t tech) {
  return NameOf<ReportFeatureTechs::Type>(tech);
}

}  // namespace

FeatureTechsAggregator::FeatureTechsAggregator(zym::IServiceLocator* locator)
    : ServiceProvider(locator), TracerProvider(locator, "FeatureTechsAggregator") {}

zym::result_t FeatureTechsAggregator::RegisterFeature(std::uint32_t feature) try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() " << FeatureName(feature));
  const std::scoped_lock lock(m_mutex);
  m_aggregated.try_emplace(feature);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

// A technology is there or not, however often it was registered: the first to unregister it takes it away for
// all. That is meant.
zym::result_t FeatureTechsAggregator::RegisterTech(std::uint32_t feature, std::uint32_t tech) try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() " << FeatureName(feature) << ", " << TechName(tech));
  const std::scoped_lock lock(m_mutex);
  m_aggregated[feature].insert(tech);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

// The texts of the checks of these two are those of the lookups under the lock, which a tracer must not hold
// up.
zym::result_t FeatureTechsAggregator::UnregisterTech(std::uint32_t feature, std::uint32_t tech) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() " << FeatureName(feature) << ", " << TechName(tech));
  bool hadFeature = false;
  bool hadTech = false;
  {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_aggregated.find(feature);
    hadFeature = found != m_aggregated.end();
    hadTech = hadFeature && found->second.erase(tech) != 0;
  }
  ZYM_CHECK_AS(GetTracer(), "featuresIt != m_aggregated.end()", hadFeature, zym::ZYM_E_NOT_FOUND,
               "Attempt to unregister non-registered feature");
  ZYM_CHECK_AS(GetTracer(), "techsIt != techs.end()", hadTech, zym::ZYM_E_NOT_FOUND,
               "Attempt to unregister non-registered tech");
  return zym::ZYM_OK;
}

zym::result_t FeatureTechsAggregator::UnregisterFeature(std::uint32_t feature) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() " << FeatureName(feature));
  bool hadFeature = false;
  {
    const std::scoped_lock lock(m_mutex);
    hadFeature = m_aggregated.erase(feature) != 0;
  }
  ZYM_CHECK_AS(GetTracer(), "m_aggregated.erase(feature)", hadFeature, zym::ZYM_E_NOT_FOUND,
               "Attempt to unregister non-registered");
  return zym::ZYM_OK;
}

zym::result_t FeatureTechsAggregator::Report(FeatureTechsReport& report) try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  Table table;
  {
    const std::scoped_lock lock(m_mutex);
    table = m_aggregated;
  }
  if (IsExploitPreventionActive()) AddExploitPrevention(table, ReportFeatures::RealTimeProtection);
  if (IsAepEnabled()) AddExploitPrevention(table, ReportFeatures::MemoryScanning);

  FeatureTechsReport filled;
  for (const auto& [feature, techs] : table)
    filled.entries.push_back({.feature = feature, .techs = {techs.begin(), techs.end()}});
  report = std::move(filled);
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- ");
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

void FeatureTechsAggregator::AddExploitPrevention(Table& table, std::uint32_t feature) {
  constexpr std::uint32_t kTech = ReportFeatureTechs::ExploitPrevention;
  // In the name of the operation that it is a part of.
  ZYM_TRACE(GetTracer(), kCall, "Report: " << FeatureName(feature) << ", " << TechName(kTech));
  table[feature].insert(kTech);
}

bool FeatureTechsAggregator::IsExploitPreventionActive() {
  const auto values = zym::RequireInterface<IProductValues>(GetServiceLocator());
  std::uint32_t value = 0;
  ZYM_CHECK_RESULT_OR_THROW(values->GetValue(IProductValues::kExploitPreventionActive, &value));
  return value != 0;
}

bool FeatureTechsAggregator::IsAepEnabled() {
  core::TaskInfo task;
  if (!ZYM_SUCCEEDED(process_memory_manager::GetMemoryScanningTask(GetServiceLocator(), GetTracer(), task)))
    return false;
  const bool useAEP = process_memory_manager::GetMemoryScanSettings(task)->useAEP;
  ZYM_TRACE(GetTracer(), kCall, __func__ << ": useAEP=" << useAEP);
  return useAEP;
}

ScopedTech::ScopedTech(zym::IServiceLocator* locator, zym::ITracer* tracer, std::uint32_t feature,
                       std::uint32_t tech)
    : m_tracer(tracer), m_feature(feature), m_tech(tech) {
  ZYM_CHECK_RESULT_OR_THROW(zym::GetInterface(locator, m_aggregator.Ref()));
  ZYM_CHECK_RESULT_OR_THROW(m_aggregator->RegisterTech(m_feature, m_tech));
}

ScopedTech::~ScopedTech() {
  ZYM_REPORT_RESULT(m_tracer, m_aggregator->UnregisterTech(m_feature, m_tech));
}

}  // namespace qor
