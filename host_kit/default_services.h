// The services that the module cannot work without, each as small as it can be.
#pragma once

#include "host_kit/service_locator.h"

namespace host_kit {

// A locator with MallocAllocator, StartupDataProvider, ScanStatistics, FeatureLookup without a switch,
// NullMetrics, CategoryFilter that holds sensitive text back, and a tracer that makes no record. A host
// replaces what it wants to do better by Add. What else the module can ask for is listed in
// docs/embedding.md.
[[nodiscard]] zym::intrusive_ptr<ServiceLocator> MakeDefaultServices();

}  // namespace host_kit
