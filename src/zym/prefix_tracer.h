// A tracer that puts its owner's name before each record.
#pragma once

#include <string>
#include <string_view>

#include "zym/object.h"
#include "zym/tracer.h"

namespace zym::trace {

// Immutable after construction. The prefix is written in place, into room that is kept before the text, so
// that formatting never moves text for its sake.
class PrefixTracer : public object::Ifaces<ITracer, IPrefixTracer>, public NonCopyable {
 public:
  // Each name part that isn't empty adds itself and "::" to the prefix. A prefix of this kind on `tracer` is
  // replaced and not added to: construction steps through it to the tracer behind.
  PrefixTracer(const intrusive_ptr<ITracer>& tracer, std::string_view name, std::string_view secondName = {});

  result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override;
  void CommitRecord(void* buffer, std::uint64_t length) override;

  types::string_t GetPrefix() override;
  ITracer* GetTracer() override { return m_tracer.get(); }

 protected:
  ~PrefixTracer() = default;

 private:
  intrusive_ptr<ITracer> m_tracer;
  const std::uint32_t* m_ceiling;
  std::string m_prefix;
};

// A tracer for the component `name`; null stays null.
[[nodiscard]] intrusive_ptr<ITracer> WithPrefix(const intrusive_ptr<ITracer>& tracer, std::string_view name,
                                                std::string_view secondName = {});

}  // namespace zym::trace
