// The filters when memory gives out at each allocation of an operation.
#include <gtest/gtest.h>

#include <vector>

#include "module/memory_faults.h"

namespace {

using namespace test_support;
using namespace system_interceptors;
using Failing = HeapFaults::Failing;
using Threads = HeapFaults::Threads;

class Handler : public zym::object::Ifaces<event_processing::INonBlockingEventHandler> {
 public:
  void OnEvent(qor::process_manager::ISystemEvent*, std::uint32_t) override {}
};

TEST(MemoryFaults, AFilterIsRegisteredOrRefusedWithItsIdWritten) {
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    const Facade facade;
    const auto handler = zym::CreateObject<Handler>();
    std::uint32_t id = 0xffffffff;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = facade.interceptor->RegisterNonBlockingFilterAttachHandler(
        {.type = event_type::kCreateProcess}, true, 0, handler.get(), &id);
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_NE(id, 0xffffffffU);
    EXPECT_EQ(facade.Status(id), faults.Fired() ? -1 : 1);
    EXPECT_EQ(handler->AddRef(), faults.Fired() ? 2U : 3U);
    handler->Release();
    std::uint32_t next = 0;
    EXPECT_EQ(facade.interceptor->RegisterFilter({.type = event_type::kExitProcess}, true, 0, &next),
              zym::ZYM_OK);
    EXPECT_EQ(next, id + 1);
    return faults.Fired();
  });
}

TEST(MemoryFaults, FiltersAreDeletedAllOrNone) {
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    const Facade facade;
    const auto handler = zym::CreateObject<Handler>();
    std::vector<unsigned int> ids(5);
    for (unsigned int& id : ids)
      EXPECT_EQ(facade.interceptor->RegisterNonBlockingFilterAttachHandler(
                    {.type = event_type::kCreateProcess}, true, 0, handler.get(), &id),
                zym::ZYM_OK);
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = facade.interceptor->DeleteFilters({ids.data(), ids.data() + ids.size()});
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    for (const unsigned int id : ids) EXPECT_EQ(facade.Status(id), faults.Fired() ? 1 : -1);
    EXPECT_EQ(handler->AddRef(), faults.Fired() ? 7U : 2U) << "the handlers are where they were";
    handler->Release();
    EXPECT_EQ(facade.interceptor->DeleteFilters({ids.data(), ids.data() + ids.size()}), zym::ZYM_OK);
    return faults.Fired();
  });
}

TEST(MemoryFaults, TheOtherOperationsOnFiltersNeedNoMemory) {
  const Facade facade;
  const auto handler = zym::CreateObject<Handler>();
  unsigned int id = 0;
  ASSERT_EQ(facade.interceptor->RegisterFilter({.type = event_type::kCreateProcess}, true, 0, &id),
            zym::ZYM_OK);
  const interceptor_facade::FilterIds ids{&id, &id + 1};
  HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
  const zym::result_t results[] = {
      facade.interceptor->AttachHandler(id, handler.get()),
      facade.interceptor->DisableFilters(ids),
      facade.interceptor->EnableFilters(ids),
      facade.interceptor->EnableDisableFilters({}, ids),
      facade.interceptor->DetachHandler(id),
  };
  faults.End();
  for (const zym::result_t result : results) EXPECT_EQ(result, zym::ZYM_OK);
}

}  // namespace
