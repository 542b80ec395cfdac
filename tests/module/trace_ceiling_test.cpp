// The ceiling of the host's tracer, held by every class of the module.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "module/process_objects.h"

namespace test_support {
namespace {

std::vector<std::string> AboveCeiling(const RecordingTracer& tracer) {
  std::vector<std::string> texts;
  for (const TraceRecord& record : tracer.Records())
    if (record.level > zym::trace::kFailure) texts.push_back(record.text);
  return texts;
}

TEST(TraceCeiling, HoldsForEveryClassThoughTheTracerGrantsEveryLevel) {
  ModuleHost host;
  host.host.tracer->SetCeiling(zym::trace::kFailure);
  host.host.tracer->Clear();
  const Processes processes(host);
  const auto pid = static_cast<qor::PidType>(::getpid());
  static_cast<void>(processes.RecordOf(pid));
  static_cast<void>(Processes::RecordOf(*processes.ControlOf(pid)));
  EXPECT_FALSE(Processes::Walk(*processes.Enumerate()).empty());
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
  EXPECT_EQ(host.CreateInterceptor(interceptor), zym::ZYM_OK);
  interceptor.Reset();
  EXPECT_EQ(AboveCeiling(*host.host.tracer), std::vector<std::string>());
}

}  // namespace
}  // namespace test_support
