// What the tests of failing memory share: each shortage that there can be, and what is looked at then.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <ostream>

#include "module/fault_host.h"
#include "support/rights.h"

namespace test_support {

// Where and how long the memory is gone.
struct Shortage {
  HeapFaults::Failing failing;
  std::uint64_t call;

  friend std::ostream& operator<<(std::ostream& out, const Shortage& shortage) {
    return out << (shortage.failing == HeapFaults::Failing::kOnce ? "allocation " : "every allocation from ")
               << shortage.call;
  }
};

// No operation here needs nearly so many.
constexpr std::uint64_t kTooMany = 3000;

// Calls `round` with each shortage that there can be, or with every `stride`th; it gives whether an
// allocation failed.
inline void AtEachAllocation(const std::function<bool(Shortage)>& round, std::uint64_t stride = 1) {
  using Failing = HeapFaults::Failing;
  for (const Failing failing : {Failing::kOnce, Failing::kFromThenOn}) {
    std::uint64_t call = 0;
    while (call < kTooMany && round({failing, call}) && !testing::Test::HasFailure()) call += stride;
    EXPECT_LT(call, kTooMany) << "it never ended";
    if (HeapFaults::SeesAll()) {
      EXPECT_GT(call, 0U) << "nothing was ever allocated: the test has no hold on it";
    }
  }
}

// The results with which an operation may fail for want of memory.
inline bool IsOneOf(zym::result_t result, std::initializer_list<zym::result_t> results) {
  return std::ranges::find(results, result) != results.end();
}

// One interceptor for each shortage: its tables have no room to spare.
struct Facade {
  Facade() { EXPECT_EQ(host.CreateInterceptor(interceptor), zym::ZYM_OK); }

  // 1: enabled, 0: disabled, -1: there is none.
  int Status(std::uint32_t id) const {
    bool enabled = false;
    return interceptor->GetFilterStatus(id, &enabled) == zym::ZYM_OK ? enabled : -1;
  }

  FaultHost host;
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
};

class NetlinkMemoryFaults : public testing::Test {
 protected:
  void SetUp() override { SKIP_IF(MissingProcConnector()); }
};

}  // namespace test_support
