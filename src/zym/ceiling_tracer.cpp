#include "zym/ceiling_tracer.h"

namespace zym::trace {
namespace {

constexpr std::uint32_t kConstantCeiling = kDefaultCeiling;

}  // namespace

const std::uint32_t* CeilingOf(ITracer* tracer) {
  intrusive_ptr<ITraceLevelSource> source;
  void* found = nullptr;
  if (tracer != nullptr && tracer->QueryInterface(ITraceLevelSource::kIid, &found) == ZYM_OK)
    *source.Ref() = static_cast<ITraceLevelSource*>(found);
  const std::uint32_t* const ceiling = source ? source->GetLevelPtr() : nullptr;
  return ceiling != nullptr ? ceiling : &kConstantCeiling;
}

result_t CeilingTracer::QueryInterface(iid_t iid, void** out) noexcept {
  return zym::detail::QueryInterfaceOf(*this, iid, out);
}

result_t CeilingTracer::GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) {
  const bool opening = *buffer == nullptr;
  if (opening && level > *m_ceiling) return ZYM_E_NOT_MATCHED;
  return m_tracer->GetRecord(level, buffer, size);
}

void CeilingTracer::CommitRecord(void* buffer, std::uint64_t length) {
  m_tracer->CommitRecord(buffer, length);
}

}  // namespace zym::trace
