#include "zym/prefix_tracer.h"

#include <cstring>

#include "zym/ceiling_tracer.h"

namespace zym::trace {
namespace {

constexpr std::string_view kSeparator = "::";

intrusive_ptr<IPrefixTracer> QueryPrefix(ITracer& tracer) {
  intrusive_ptr<IPrefixTracer> result;
  void* found = nullptr;
  if (tracer.QueryInterface(IPrefixTracer::kIid, &found) == ZYM_OK)
    *result.Ref() = static_cast<IPrefixTracer*>(found);
  return result;
}

// Steps through the prefixes of other components, so that prefixes don't pile up.
intrusive_ptr<ITracer> SkipPrefixes(intrusive_ptr<ITracer> tracer) {
  while (tracer) {
    const auto prefixed = QueryPrefix(*tracer);
    if (!prefixed) break;
    const types::string_t prefix = prefixed->GetPrefix();
    ITracer* const inner = prefixed->GetTracer();
    if (!std::string_view(prefix).ends_with(kSeparator) || inner == nullptr || inner == tracer.get()) break;
    tracer = intrusive_ptr<ITracer>(inner);
  }
  return tracer;
}

std::string MakePrefix(std::string_view name, std::string_view secondName) {
  std::string prefix;
  for (const std::string_view part : {name, secondName})
    if (!part.empty()) prefix.append(part).append(kSeparator);
  return prefix;
}

}  // namespace

PrefixTracer::PrefixTracer(const intrusive_ptr<ITracer>& tracer, std::string_view name,
                           std::string_view secondName)
    : m_tracer(SkipPrefixes(tracer)),
      m_ceiling(CeilingOf(m_tracer.get())),
      m_prefix(MakePrefix(name, secondName)) {}

result_t PrefixTracer::GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) {
  const bool opening = *buffer == nullptr;
  if (opening && level > *m_ceiling) return ZYM_E_NOT_MATCHED;
  if (!m_tracer) return ZYM_E_NOT_MATCHED;
  void* record = opening ? nullptr : static_cast<char*>(*buffer) - m_prefix.size();
  const result_t result = m_tracer->GetRecord(level, &record, size + m_prefix.size());
  if (result != ZYM_OK) return result;
  // A success without a buffer is passed on as such: the caller must not take the old one for one that has
  // grown.
  *buffer = record != nullptr ? static_cast<char*>(record) + m_prefix.size() : nullptr;
  return ZYM_OK;
}

void PrefixTracer::CommitRecord(void* buffer, std::uint64_t length) {
  char* const record = static_cast<char*>(buffer) - m_prefix.size();
  std::memcpy(record, m_prefix.data(), m_prefix.size());
  m_tracer->CommitRecord(record, length + m_prefix.size());
}

types::string_t PrefixTracer::GetPrefix() {
  return types::string_t(m_prefix);
}

intrusive_ptr<ITracer> WithPrefix(const intrusive_ptr<ITracer>& tracer, std::string_view name,
                                  std::string_view secondName) {
  if (!tracer) return {};
  return CreateObject<PrefixTracer>(tracer, name, secondName);
}

}  // namespace zym::trace
