#include "process_manager/filter_manager.h"

#include <gtest/gtest.h>

#include <functional>
#include <latch>
#include <stdexcept>
#include <thread>

#include "support/fake_services.h"
#include "zym/object.h"

namespace qor::process_manager {
namespace {

using zym::trace::kFailure;

constexpr std::uint32_t kType = system_interceptors::event_type::kCreateProcess;
constexpr std::uint32_t kOtherType = system_interceptors::event_type::kExitProcess;

class Handler : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
 public:
  void OnEvent(ISystemEvent*, std::uint32_t filterId) override {
    ids.push_back(filterId);
    if (act) act();
  }
  std::vector<std::uint32_t> ids;
  std::function<void()> act;
};

class Table : public FilterManager<non_blocking::Filter> {
 public:
  explicit Table(zym::IServiceLocator* locator) : FilterManager(locator, "Table") {}
  zym::result_t Start() override {
    ++starts;
    return result;
  }
  zym::result_t Stop() override {
    ++stops;
    return result;
  }
  int starts = 0;
  int stops = 0;
  zym::result_t result = zym::ZYM_OK;
};

class FilterManagerTest : public testing::Test {
 protected:
  zym::result_t Register(std::uint32_t id, bool enabled, const zym::intrusive_ptr<Handler>& handler,
                         std::uint32_t type = kType) {
    return m_table.RegisterFilter(
        {.enabled = enabled, .handler = handler, .descriptor = {.type = type}, .id = id});
  }
  static FilterManager<non_blocking::Filter>::FilterIds Ids(std::vector<unsigned int>& ids) {
    return {ids.data(), ids.data() + ids.size()};
  }
  zym::result_t Delete(std::vector<unsigned int> ids) { return m_table.DeleteFilters(Ids(ids)); }
  zym::result_t Disable(std::vector<unsigned int> ids) { return m_table.DisableFilters(Ids(ids)); }
  zym::result_t Enable(std::vector<unsigned int> ids) { return m_table.EnableFilters(Ids(ids)); }
  void Event(std::uint32_t type = kType) { m_table.OnEvent(type, static_cast<ISystemEvent*>(nullptr)); }

  test_support::FakeHost m_host;
  Table m_table{m_host.locator.get()};
  zym::intrusive_ptr<Handler> m_handler = zym::CreateObject<Handler>();
};

TEST_F(FilterManagerTest, AnEnabledFilterWithoutAHandlerDoesNotStartTheSourceAndAttachingOneDoes) {
  EXPECT_EQ(Register(1, true, nullptr), zym::ZYM_OK);
  EXPECT_EQ(m_table.starts, 0);
  EXPECT_EQ(m_table.AttachHandler(1, m_handler.get()), zym::ZYM_OK);
  EXPECT_EQ(m_table.starts, 1);
}

TEST_F(FilterManagerTest, DisablingTheLastActiveFilterStopsAndEnablingStartsAgain) {
  Register(1, true, m_handler);
  Register(2, true, m_handler);
  Disable({1});
  EXPECT_EQ(m_table.stops, 0);
  Disable({2});
  EXPECT_EQ(m_table.stops, 1);
  Enable({1});
  EXPECT_EQ(m_table.starts, 3) << "the call is made every time";
}

TEST_F(FilterManagerTest, DeletingUnknownIdsOfAnIdleTableStopsItOnPurpose) {
  EXPECT_EQ(Delete({77}), zym::ZYM_OK);
  EXPECT_EQ(m_table.stops, 1);
}

TEST_F(FilterManagerTest, AnEventOfATypeWithNoFilterCallsNobody) {
  Register(1, true, m_handler);
  Event(kOtherType);
  EXPECT_TRUE(m_handler->ids.empty());
}

TEST_F(FilterManagerTest, EachActiveFilterIsCalledOnceInTheOrderOfRegistration) {
  Register(3, true, m_handler);
  Register(1, true, m_handler);
  Register(2, false, m_handler);
  Register(4, true, m_handler, kOtherType);
  Register(5, true, m_handler);
  Event();
  EXPECT_EQ(m_handler->ids, (std::vector<std::uint32_t>{3, 1, 5}));
}

TEST_F(FilterManagerTest, AHandlerThatRaisesIsTracedAndTheNextIsStillCalled) {
  const auto raising = zym::CreateObject<Handler>();
  raising->act = [] { throw std::runtime_error("broken handler"); };
  Register(1, true, raising);
  Register(2, true, m_handler);
  Event();
  EXPECT_EQ(m_handler->ids.size(), 1U);
  EXPECT_TRUE(m_host.tracer->Has(kFailure, "OnEvent: broken handler"));
  EXPECT_EQ(Delete({1}), zym::ZYM_OK) << "nothing is counted as in use any more";
}

TEST_F(FilterManagerTest, DisablingWaitsForARunningHandlerAndNoCallBeginsAfterwards) {
  std::latch running(1);
  std::latch mayReturn(1);
  bool returned = false;
  m_handler->act = [&] {
    running.count_down();
    mayReturn.wait();
    returned = true;
  };
  Register(1, true, m_handler);
  std::thread events([this] { Event(); });
  running.wait();
  std::thread release([&] { mayReturn.count_down(); });
  Disable({1});
  EXPECT_TRUE(returned);
  events.join();
  release.join();
  Event();
  EXPECT_EQ(m_handler->ids.size(), 1U);
}

TEST_F(FilterManagerTest, DetachingAndDeletingWaitForARunningHandlerToo) {
  for (const bool detach : {true, false}) {
    std::latch running(1);
    std::latch mayReturn(1);
    bool returned = false;
    const auto handler = zym::CreateObject<Handler>();
    handler->act = [&] {
      running.count_down();
      mayReturn.wait();
      returned = true;
    };
    Register(1, true, handler);
    std::thread events([this] { Event(); });
    running.wait();
    std::thread release([&] { mayReturn.count_down(); });
    EXPECT_EQ(detach ? m_table.DetachHandler(1) : Delete({1}), zym::ZYM_OK);
    EXPECT_TRUE(returned);
    events.join();
    release.join();
    Delete({1});
  }
}

TEST_F(FilterManagerTest, AFilterDeletedDuringTheWalkIsNotCalledAndTheWalkGoesOn) {
  const auto deleting = zym::CreateObject<Handler>();
  deleting->act = [this] { std::thread([this] { Delete({2}); }).join(); };
  Register(1, true, deleting);
  Register(2, true, m_handler);
  const auto last = zym::CreateObject<Handler>();
  Register(3, true, last);
  Event();
  EXPECT_TRUE(m_handler->ids.empty());
  EXPECT_EQ(last->ids.size(), 1U);
}

TEST_F(FilterManagerTest, AFilterAddedDuringTheWalkIsCalledAtMostOnce) {
  const auto adding = zym::CreateObject<Handler>();
  adding->act = [this] { Register(9, true, m_handler); };
  Register(1, true, adding);
  Event();
  EXPECT_EQ(m_handler->ids, (std::vector<std::uint32_t>{9}));
}

TEST_F(FilterManagerTest, AFailingStartIsReturnedAndTheFilterStays) {
  m_table.result = zym::ZYM_E_LOCKED;
  EXPECT_EQ(Register(1, true, m_handler), zym::ZYM_E_LOCKED);
  EXPECT_TRUE(m_host.tracer->Has(
      kFailure,
      "(Start()),(ZYM_SUCCEEDED(_result)) failed: result = 0x8000004f (Locked) Cannot start interceptor"));
  bool enabled = false;
  EXPECT_EQ(m_table.GetFilterStatus(1, &enabled), zym::ZYM_OK);
  EXPECT_TRUE(enabled);
  EXPECT_EQ(Disable({1}), zym::ZYM_E_LOCKED);
  EXPECT_TRUE(m_host.tracer->Has(
      kFailure,
      "(Stop()),(ZYM_SUCCEEDED(_result)) failed: result = 0x8000004f (Locked) Cannot stop interceptor"));
}

TEST_F(FilterManagerTest, EnableDisableTracesTheHalfThatFailed) {
  Register(1, true, m_handler);
  m_table.result = zym::ZYM_E_LOCKED;
  std::vector<unsigned int> enable{1};
  std::vector<unsigned int> disable;
  EXPECT_EQ(m_table.EnableDisableFilters(Ids(enable), Ids(disable)), zym::ZYM_E_LOCKED);
  EXPECT_TRUE(m_host.tracer->Has(kFailure, "(EnableFilters(filtersToEnable)),"));
}

TEST_F(FilterManagerTest, StatusOfAnUnknownFilterIsNotFound) {
  bool enabled = false;
  EXPECT_EQ(m_table.GetFilterStatus(1, &enabled), zym::ZYM_E_NOT_FOUND);
  Register(1, true, nullptr);
  Delete({1});
  EXPECT_EQ(m_table.GetFilterStatus(1, &enabled), zym::ZYM_E_NOT_FOUND);
}

TEST_F(FilterManagerTest, AttachingReplacesTheHandlerAndReleasesTheOldOne) {
  Register(1, true, m_handler);
  const auto other = zym::CreateObject<Handler>();
  m_table.AttachHandler(1, other.get());
  EXPECT_EQ(m_handler->AddRef(), 2U);
  m_handler->Release();
  m_table.AttachHandler(1, nullptr);
  Event();
  EXPECT_TRUE(other->ids.empty());
}

}  // namespace
}  // namespace qor::process_manager
