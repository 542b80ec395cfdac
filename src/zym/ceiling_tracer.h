// The ceiling of the host's tracer, and a tracer that holds to it.
#pragma once

#include "zym/intrusive_ptr.h"
#include "zym/tracer.h"

namespace zym::trace {

// The ceiling that `tracer` is the source of, else the default one; never null. Valid while `tracer` lives.
const std::uint32_t* CeilingOf(ITracer* tracer);

// A tracer that refuses a record above the ceiling of `tracer`, which then isn't called, and passes every
// other on as it is; `tracer` itself when it is the source of no ceiling. Is a source of the same ceiling.
// Stays within the module: the module object counter doesn't count it.
[[nodiscard]] intrusive_ptr<ITracer> WithCeiling(const intrusive_ptr<ITracer>& tracer);

}  // namespace zym::trace
