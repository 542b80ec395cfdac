// The host's tracer: one line for each record, to a file or to standard error.
#pragma once

#include <cstdint>
#include <string>

#include "host_kit/callback_tracer.h"

namespace pmhost {

// A line is "<level> <text>", written with one call, so that lines of several threads don't mix. A line that
// can't be written is lost: tracing never fails what it traces.
class Tracer : public host_kit::CallbackTracer {
 public:
  // Levels above `ceiling` are not traced; 0 traces nothing. Lines are appended to `file`; an empty name is
  // standard error. Throws Failure.
  Tracer(std::uint32_t ceiling, const std::string& file);
};

}  // namespace pmhost
