#include "process_manager/interception/filter_manager.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/fake_services.h"
#include "support/threads.h"
#include "tests/process_manager/interception/filter_manager_fixture.h"
#include "zym/object.h"

namespace qor::process_manager {
namespace {

using system_interceptors::event_processing::Action;
using system_interceptors::event_processing::IEventControl;

// --- Who makes the source run. ---

TEST_F(FilterManagerTest, AFilterWithoutAHandlerStartsNothingAndAttachHandlerThenDoes) {
  EXPECT_EQ(Register(1, {}), zym::ZYM_OK);
  EXPECT_EQ(m_source->starts, 0);
  const auto handler = zym::CreateObject<Handler>();
  EXPECT_EQ(m_source->AttachHandler(1, handler.get()), zym::ZYM_OK);
  EXPECT_EQ(m_source->starts, 1);
}

TEST_F(FilterManagerTest, ADisabledFilterStartsNothingAndEnableFiltersThenDoes) {
  EXPECT_EQ(Register(1, zym::CreateObject<Handler>(), false), zym::ZYM_OK);
  EXPECT_EQ(m_source->starts, 0);
  EXPECT_FALSE(IsEnabled(1));
  EXPECT_EQ(Enable({1}), zym::ZYM_OK);
  EXPECT_EQ(m_source->starts, 1);
  EXPECT_TRUE(IsEnabled(1));
}

TEST_F(FilterManagerTest, EveryRegistrationIntoAnActiveTableCallsStart) {
  Register(1, zym::CreateObject<Handler>());
  Register(2, zym::CreateObject<Handler>());
  Register(3, {}, false);
  EXPECT_EQ(m_source->starts, 3);
}

TEST_F(FilterManagerTest, DisablingTheLastActiveFilterStopsAndEnablingItStartsAgain) {
  Register(1, zym::CreateObject<Handler>());
  Register(2, zym::CreateObject<Handler>());
  EXPECT_EQ(m_source->starts, 2);
  EXPECT_EQ(Disable({1}), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 0);
  EXPECT_EQ(Disable({2}), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 1);
  EXPECT_EQ(Enable({2}), zym::ZYM_OK);
  EXPECT_EQ(m_source->starts, 3);
}

TEST_F(FilterManagerTest, DetachingTheLastHandlerStopsAndTheFilterStaysEnabled) {
  Register(1, zym::CreateObject<Handler>());
  EXPECT_EQ(m_source->DetachHandler(1), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 1);
  EXPECT_TRUE(IsEnabled(1));
}

TEST_F(FilterManagerTest, DeletingTheLastActiveFilterStops) {
  Register(1, zym::CreateObject<Handler>());
  Register(2, {});
  EXPECT_EQ(Delete({1}), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 1);
  EXPECT_FALSE(IsThere(1));
  EXPECT_TRUE(IsThere(2));
}

// Meant: stopping a source that doesn't run is harmless.
TEST_F(FilterManagerTest, DeletingUnknownIdsFromAnIdleTableCallsStop) {
  EXPECT_EQ(Delete({7, 8}), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 1);
  EXPECT_EQ(Disable({7}), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 2);
  EXPECT_EQ(m_source->DetachHandler(7), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 3);
}

TEST_F(FilterManagerTest, DeletingUnknownIdsFromAnActiveTableLeavesTheSourceRunning) {
  Register(1, zym::CreateObject<Handler>());
  EXPECT_EQ(Delete({7, 8}), zym::ZYM_OK);
  EXPECT_EQ(Disable({7}), zym::ZYM_OK);
  EXPECT_EQ(m_source->DetachHandler(7), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 0);
}

TEST_F(FilterManagerTest, UnknownIdsArePassedOver) {
  Register(1, zym::CreateObject<Handler>(), false);
  EXPECT_EQ(Enable({9, 1, 8}), zym::ZYM_OK);
  EXPECT_TRUE(IsEnabled(1));
  EXPECT_EQ(m_source->AttachHandler(9, zym::CreateObject<Handler>().get()), zym::ZYM_OK);
  EXPECT_FALSE(IsThere(9));
}

TEST_F(FilterManagerTest, TheStatusOfAnUnknownFilterIsNotFoundAndTheOutputIsLeftAlone) {
  bool enabled = true;
  EXPECT_EQ(m_source->GetFilterStatus(1, &enabled), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(enabled);
}

// --- Starting and stopping that fail. ---

TEST_F(FilterManagerTest, AStartThatFailsIsTracedAndReturnedAndTheFilterStays) {
  m_source->startResult = zym::ZYM_E_ACCESS_DENIED;
  EXPECT_EQ(Register(1, zym::CreateObject<Handler>()), zym::ZYM_E_ACCESS_DENIED);
  EXPECT_TRUE(IsEnabled(1));
  const std::string trace = m_host.tracer->Find("Cannot start interceptor");
  EXPECT_TRUE(trace.starts_with("Source::process_manager/interception/filter_manager.h:")) << trace;
  EXPECT_NE(
      trace.find("(Start()),(ZYM_SUCCEEDED(_result)) failed: result = 0x80000045 (Access denied) Cannot "
                 "start interceptor"),
      std::string::npos)
      << trace;
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "Cannot start interceptor"));

  Register(2, zym::CreateObject<Handler>(), false);
  EXPECT_EQ(Enable({2}), zym::ZYM_E_ACCESS_DENIED);
  EXPECT_TRUE(IsEnabled(2));
  EXPECT_EQ(m_source->AttachHandler(2, zym::CreateObject<Handler>().get()), zym::ZYM_E_ACCESS_DENIED);
}

TEST_F(FilterManagerTest, AStopThatFailsIsTracedAndReturnedAndTheFiltersStayChanged) {
  m_source->stopResult = zym::ZYM_E_TIMEOUT;
  Register(1, zym::CreateObject<Handler>());
  EXPECT_EQ(Disable({1}), zym::ZYM_E_TIMEOUT);
  EXPECT_FALSE(IsEnabled(1));
  const std::string trace = m_host.tracer->Find("Cannot stop interceptor");
  EXPECT_NE(trace.find("(Stop()),(ZYM_SUCCEEDED(_result)) failed: result = 0x80000221"), std::string::npos)
      << trace;
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "Cannot stop interceptor"));

  EXPECT_EQ(m_source->DetachHandler(1), zym::ZYM_E_TIMEOUT);
  EXPECT_EQ(Delete({1}), zym::ZYM_E_TIMEOUT);
  EXPECT_FALSE(IsThere(1));
}

TEST_F(FilterManagerTest, NothingToDoIsASuccessOfStartAndStop) {
  m_source->startResult = zym::ZYM_FALSE;
  m_source->stopResult = zym::ZYM_FALSE;
  EXPECT_EQ(Register(1, zym::CreateObject<Handler>()), zym::ZYM_OK);
  EXPECT_EQ(Disable({1}), zym::ZYM_OK);
  EXPECT_FALSE(m_host.tracer->Has(zym::trace::kFailure, ""));
}

TEST_F(FilterManagerTest, EnableDisableChangesBothListsInOneCall) {
  Register(1, zym::CreateObject<Handler>(), false);
  Register(2, zym::CreateObject<Handler>(), true);
  EXPECT_EQ(EnableDisable({1}, {2}), zym::ZYM_OK);
  EXPECT_TRUE(IsEnabled(1));
  EXPECT_FALSE(IsEnabled(2));
  EXPECT_EQ(m_source->stops, 0);
}

TEST_F(FilterManagerTest, EnableDisableStopsAtAnEnableThatFails) {
  Register(1, zym::CreateObject<Handler>(), false);
  Register(2, zym::CreateObject<Handler>(), true);
  m_source->startResult = zym::ZYM_E_PLATFORM;
  EXPECT_EQ(EnableDisable({1}, {2}), zym::ZYM_E_PLATFORM);
  EXPECT_TRUE(IsEnabled(1));
  EXPECT_TRUE(IsEnabled(2));
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "(EnableFilters(filtersToEnable)),(ZYM_SUCCEEDED("));
}

TEST_F(FilterManagerTest, EnableDisableReturnsADisableThatFails) {
  Register(1, zym::CreateObject<Handler>());
  m_source->stopResult = zym::ZYM_E_PLATFORM;
  EXPECT_EQ(EnableDisable({}, {1}), zym::ZYM_E_PLATFORM);
  EXPECT_FALSE(IsEnabled(1));
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "(DisableFilters(filtersToDisable)),(ZYM_SUCCEEDED("));
}

// --- Who gets an event. ---

TEST_F(FilterManagerTest, AnEventOfATypeWithNoFilterCallsNobody) {
  const auto handler = zym::CreateObject<Handler>();
  SendEvent();
  Register(1, handler);
  SendEvent(kOtherType);
  EXPECT_TRUE(handler->Calls().empty());
}

TEST_F(FilterManagerTest, EachActiveFilterOfTheTypeIsCalledOnceInTheOrderOfRegistration) {
  const auto handler = zym::CreateObject<Handler>();
  Register(5, handler);
  Register(3, handler);
  Register(4, handler, false);
  Register(8, handler, true, kOtherType);
  Register(7, {});
  Register(1, handler);
  SendEvent();
  EXPECT_EQ(handler->Calls(), (std::vector<std::uint32_t>{5, 3, 1}));
}

TEST_F(FilterManagerTest, ADisabledOrDetachedFilterIsNotCalled) {
  const auto handler = zym::CreateObject<Handler>();
  for (const std::uint32_t id : {1U, 2U, 3U}) Register(id, handler);
  Disable({1});
  m_source->DetachHandler(2);
  SendEvent();
  EXPECT_EQ(handler->Calls(), (std::vector<std::uint32_t>{3}));
}

TEST_F(FilterManagerTest, AttachHandlerReleasesTheOldOneAndANullHandlerClearsIt) {
  auto old = zym::CreateObject<Handler>();
  const auto other = zym::CreateObject<Handler>();
  Register(1, old);
  EXPECT_EQ(m_source->AttachHandler(1, other.get()), zym::ZYM_OK);
  EXPECT_EQ(old->AddRef(), 2U) << "the table still holds the old handler";
  old->Release();
  SendEvent();
  EXPECT_TRUE(old->Calls().empty());
  EXPECT_EQ(other->Calls().size(), 1U);
  EXPECT_EQ(m_source->AttachHandler(1, nullptr), zym::ZYM_OK);
  SendEvent();
  EXPECT_EQ(other->Calls().size(), 1U);
}

TEST_F(FilterManagerTest, AHandlerThatRaisesIsTracedAndTheNextFilterIsCalled) {
  const auto raising =
      zym::CreateObject<Handler>([](std::uint32_t) { throw std::out_of_range("no such row"); });
  const auto next = zym::CreateObject<Handler>();
  Register(1, raising);
  Register(2, next);
  SendEvent();
  EXPECT_EQ(next->Calls(), (std::vector<std::uint32_t>{2}));
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "Source::OnEvent: no such row"));
  // Its use count is back: nothing waits for it.
  EXPECT_EQ(Delete({1}), zym::ZYM_OK);
  EXPECT_FALSE(IsThere(1));
}

TEST_F(FilterManagerTest, AnythingElseThanAnExceptionIsCaughtToo) {
  Register(1, zym::CreateObject<Handler>([](std::uint32_t) { throw 42; }));
  SendEvent();
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "OnEvent: unknown exception"));
  EXPECT_EQ(Disable({1}), zym::ZYM_OK);
}

TEST_F(FilterManagerTest, AFilterThatIsAddedDuringTheWalkIsServedByIt) {
  const auto late = zym::CreateObject<Handler>();
  Register(1, zym::CreateObject<Handler>([&](std::uint32_t) { Register(2, late); }));
  SendEvent();
  EXPECT_EQ(late->Calls(), (std::vector<std::uint32_t>{2}));
}

TEST_F(FilterManagerTest, NoLockIsHeldDuringStartStopAndHandlers) {
  int looks = 0;
  const auto look = [&] {
    bool enabled = false;
    m_source->GetFilterStatus(1, &enabled);
    ++looks;
  };
  m_source->onStart = look;
  m_source->onStop = look;
  Register(1, zym::CreateObject<Handler>([&](std::uint32_t) { look(); }));
  SendEvent();
  Disable({1});
  EXPECT_EQ(looks, 3);
}

// --- The blocking table. ---

class NoControl : public zym::object::Ifaces<IEventControl> {
 public:
  zym::result_t Pend(std::uint32_t) override { return zym::ZYM_OK; }
  zym::result_t PreReply(const Action&, std::uint32_t) override { return zym::ZYM_OK; }
  zym::result_t Reply(const Action& action) override {
    replies.push_back(action);
    return zym::ZYM_OK;
  }
  std::vector<Action> replies;
};

class BlockingHandler
    : public zym::object::Ifaces<system_interceptors::event_processing::IBlockingEventHandler> {
 public:
  void OnEvent(ISystemEvent*, std::uint32_t filterId, IEventControl* control) override {
    calls.push_back(filterId);
    control->Reply(Action::kDeny);
  }
  std::vector<std::uint32_t> calls;
};

TEST(BlockingFilterManager, PassesTheControlBehindTheId) {
  const std::int32_t before = zym::ModuleObjectCounter::Value();
  {
    test_support::FakeHost host;
    const auto source = zym::CreateObject<Source<blocking::Filter>>(host.locator.get());
    const auto handler = zym::CreateObject<BlockingHandler>();
    const auto control = zym::CreateObject<NoControl>();
    const auto event = zym::CreateObject<SomeEvent>();
    for (const std::uint32_t id : {4U, 2U})
      EXPECT_EQ(source->RegisterFilter({.enabled = true,
                                        .handler = handler,
                                        .descriptor = {.type = kType},
                                        .id = id,
                                        .timeout = 1000}),
                zym::ZYM_OK);
    source->OnEvent(kType, event.get(), control.get());
    EXPECT_EQ(handler->calls, (std::vector<std::uint32_t>{4, 2}));
    EXPECT_EQ(control->replies.size(), 2U);
    Ids ids{4, 2};
    EXPECT_EQ(source->DeleteFilters(RangeOf(ids)), zym::ZYM_OK);
    EXPECT_EQ(source->stops, 1);
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), before);
}

// A handler of a blocking filter is given at its registration and stays.
template <class Table>
concept HasHandlerOperations = requires(Table& table, typename Table::Handler* handler) {
  table.AttachHandler(1, handler);
  table.DetachHandler(1);
};
static_assert(HasHandlerOperations<FilterManager<non_blocking::Filter>>);
static_assert(!HasHandlerOperations<FilterManager<blocking::Filter>>);

}  // namespace
}  // namespace qor::process_manager
