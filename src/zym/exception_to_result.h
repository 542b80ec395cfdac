// The end of every exception: a trace record and a result code.
#pragma once

#include <string_view>

#include "zym/result.h"
#include "zym/tracer.h"

namespace zym {

// Called in a catch-all. Traces the exception in flight, and those nested in it, outermost first, at level
// 300 in one record behind `prefix`; returns the code of the first that has one. The tracer may be null.
// Terminates the process if even this raises.
result_t ExceptionToResult(ITracer* tracer, std::string_view prefix = {}) noexcept;

// The same with "<before><function>: " as the prefix.
result_t ExceptionInFunctionToResult(ITracer* tracer, std::string_view function,
                                     std::string_view before = {}) noexcept;

}  // namespace zym
