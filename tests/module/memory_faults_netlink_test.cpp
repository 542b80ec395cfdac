// The source of events when memory gives out at each allocation of its start and of its stop.
#include <gtest/gtest.h>

#include <thread>

#include "module/memory_faults.h"
#include "support/own_process.h"
#include "support/threads.h"

namespace {

using namespace test_support;
using Failing = HeapFaults::Failing;
using Threads = HeapFaults::Threads;
namespace non_blocking_type = qor::process_manager::non_blocking_type;

TEST_F(NetlinkMemoryFaults, AStartSucceedsOrFailsAndAStopClearsTheWay) {
  const Facade facade;
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
  ASSERT_EQ(zym::QueryInterface(facade.interceptor, control.Ref()), zym::ZYM_OK);
  constexpr std::uint32_t kType = non_blocking_type::kNetlink | non_blocking_type::kFullProcessInfo;
  ASSERT_EQ(control->EnableNonBlockingInterceptor(kType), zym::ZYM_OK);
  ASSERT_EQ(control->DisableNonBlockingInterceptor(kType), zym::ZYM_OK);
  const auto descriptors = OpenDescriptors();
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    facade.host.host.tracer->Clear();
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = control->EnableNonBlockingInterceptor(kType);
    faults.End();
    if (faults.Fired()) {
      // The socket and the thread fail as the system says it: 0x8006000b is EAGAIN of pthread_create(3).
      EXPECT_TRUE(IsOneOf(result, {zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_UNSPECIFIED,
                                   static_cast<zym::result_t>(0x8006000bU)}))
          << std::hex << result;
      EXPECT_TRUE(facade.host.host.tracer->Has(300, "(m_nonBlockingInterceptor->Start(type))"));
    } else {
      EXPECT_EQ(result, zym::ZYM_OK);
    }
    EXPECT_EQ(control->DisableNonBlockingInterceptor(kType), zym::ZYM_OK);
    EXPECT_TRUE(ThreadsNamed("vornPrcMonPoll").empty());
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(control->EnableNonBlockingInterceptor(kType), zym::ZYM_OK);
    EXPECT_TRUE(Eventually([] { return ThreadsNamed("vornPrcMonPoll").size() == 1; }));
    EXPECT_EQ(control->DisableNonBlockingInterceptor(kType), zym::ZYM_OK);
    return faults.Fired();
  });
}

TEST_F(NetlinkMemoryFaults, AStopNeedsNoMemory) {
  const Facade facade;
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
  ASSERT_EQ(zym::QueryInterface(facade.interceptor, control.Ref()), zym::ZYM_OK);
  const auto descriptors = OpenDescriptors();
  ASSERT_EQ(control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
  HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
  const zym::result_t result = control->DisableNonBlockingInterceptor(non_blocking_type::kNetlink);
  faults.End();
  EXPECT_EQ(result, zym::ZYM_OK);
  // The thread that polls may have failed to read a process of the machine that ended early.
  for (const TraceRecord& record : facade.host.host.tracer->Records())
    EXPECT_FALSE(record.level == 300 && record.thread == std::this_thread::get_id()) << record.text;
  EXPECT_TRUE(ThreadsNamed("vornPrcMonPoll").empty());
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

}  // namespace
