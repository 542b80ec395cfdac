// Process events as lines.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "host/output/json.h"
#include "host/output/process_event.h"
#include "host/output/time_text.h"

namespace pmhost {

// Called by one thread at a time. A line is valid until the next call.
class ProcessEventPrinter {
 public:
  virtual ~ProcessEventPrinter() = default;

  // What stands above the lines; empty when nothing does.
  virtual std::string_view Heading() { return {}; }
  virtual std::string_view Line(const ProcessEvent& event) = 0;
};

// One JSON object a line.
std::unique_ptr<ProcessEventPrinter> MakeJsonPrinter();

// Columns for a person, cut to `width` unless that is 0.
std::unique_ptr<ProcessEventPrinter> MakeColumnPrinter(std::size_t width);

}  // namespace pmhost
