#include "zym/ceiling_tracer.h"

#include "zym/object.h"

namespace zym::trace {
namespace {

constexpr std::uint32_t kConstantCeiling = kDefaultCeiling;

// Null when `tracer` is the source of no ceiling.
const std::uint32_t* FindCeiling(ITracer* tracer) {
  intrusive_ptr<ITraceLevelSource> source;
  void* found = nullptr;
  if (tracer != nullptr && tracer->QueryInterface(ITraceLevelSource::kIid, &found) == ZYM_OK)
    *source.Ref() = static_cast<ITraceLevelSource*>(found);
  return source ? source->GetLevelPtr() : nullptr;
}

// Immutable after construction. Each is a part of an object that counts for both.
class CeilingTracer final : public object::Ifaces<ITracer, ITraceLevelSource>,
                            public NonCopyable,
                            private zym::detail::RefCounter {
 public:
  CeilingTracer(const intrusive_ptr<ITracer>& tracer, const std::uint32_t* ceiling)
      : m_tracer(tracer), m_ceiling(ceiling) {}

  std::uint32_t AddRef() noexcept override { return Increment(); }
  std::uint32_t Release() noexcept override {
    const std::uint32_t count = Decrement();
    if (count == 0) delete this;
    return count;
  }
  result_t QueryInterface(iid_t iid, void** out) noexcept override {
    return zym::detail::QueryInterfaceOf(*this, iid, out);
  }

  result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override {
    const bool opening = *buffer == nullptr;
    if (opening && level > *m_ceiling) return ZYM_E_NOT_MATCHED;
    return m_tracer->GetRecord(level, buffer, size);
  }
  void CommitRecord(void* buffer, std::uint64_t length) override { m_tracer->CommitRecord(buffer, length); }

  const std::uint32_t* GetLevelPtr() override { return m_ceiling; }

 private:
  ~CeilingTracer() = default;

  intrusive_ptr<ITracer> m_tracer;
  const std::uint32_t* m_ceiling;  // lives as long as m_tracer
};

}  // namespace

const std::uint32_t* CeilingOf(ITracer* tracer) {
  const std::uint32_t* const ceiling = FindCeiling(tracer);
  return ceiling != nullptr ? ceiling : &kConstantCeiling;
}

intrusive_ptr<ITracer> WithCeiling(const intrusive_ptr<ITracer>& tracer) {
  const std::uint32_t* const ceiling = FindCeiling(tracer.get());
  if (ceiling == nullptr) return tracer;
  return intrusive_ptr<ITracer>::Attach(new CeilingTracer(tracer, ceiling));
}

}  // namespace zym::trace
