// The ceiling of the host's tracer, and a tracer that holds to it.
#pragma once

#include "zym/object.h"
#include "zym/tracer.h"

namespace zym::trace {

// The ceiling that `tracer` is the source of, else the default one; never null. Valid while `tracer` lives.
const std::uint32_t* CeilingOf(ITracer* tracer);

// Refuses a record above the ceiling of the tracer behind it, which then isn't called, and passes every other
// on as it is. A part of the object that traces, and lives as long: it counts no references and costs no
// memory of its own. The tracer behind it lives longer.
class CeilingTracer final : public object::Ifaces<ITracer, ITraceLevelSource>, public NonCopyable {
 public:
  explicit CeilingTracer(ITracer* tracer) : m_tracer(tracer), m_ceiling(CeilingOf(tracer)) {}

  std::uint32_t AddRef() noexcept override { return 1; }
  std::uint32_t Release() noexcept override { return 1; }
  result_t QueryInterface(iid_t iid, void** out) noexcept override;

  result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override;
  void CommitRecord(void* buffer, std::uint64_t length) override;

  const std::uint32_t* GetLevelPtr() override { return m_ceiling; }

 private:
  ITracer* m_tracer;
  const std::uint32_t* m_ceiling;
};

}  // namespace zym::trace
