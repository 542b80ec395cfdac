// Filters that are removed while their handlers run.
#include "process_manager/interception/filter_manager.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "support/threads.h"
#include "tests/process_manager/interception/filter_manager_fixture.h"
#include "zym/object.h"

namespace qor::process_manager {
namespace {

using test_support::Call;
using test_support::Eventually;
using test_support::Gate;

// A handler that is inside its call until the test lets it go.
struct HeldCall {
  Gate entered;
  Gate release;
  std::atomic<bool> left{false};
  zym::intrusive_ptr<Handler> handler = zym::CreateObject<Handler>([this](std::uint32_t) {
    entered.Open();
    release.Wait();
    left = true;
  });
};

class FilterRemoval : public FilterManagerTest {
 protected:
  // Runs `remove` while the handler of filter 1 is held, and shows that it waits for the handler to return.
  void ExpectToWaitForTheRunningHandler(const std::function<zym::result_t()>& remove);
};

void FilterRemoval::ExpectToWaitForTheRunningHandler(const std::function<zym::result_t()>& remove) {
  HeldCall held;
  Register(1, held.handler);
  std::thread sender([this] { SendEvent(); });
  held.entered.Wait();
  bool handlerHadLeft = false;
  Call call([&] {
    EXPECT_EQ(remove(), zym::ZYM_OK);
    handlerHadLeft = held.left;
  });
  EXPECT_TRUE(call.IsBlocked());
  EXPECT_EQ(m_source->stops, 0);
  held.release.Open();
  call.Join();
  EXPECT_TRUE(handlerHadLeft);
  EXPECT_EQ(m_source->stops, 1);
  sender.join();
  SendEvent();
  EXPECT_EQ(held.handler->Calls().size(), 1U) << "a call began after the removal had returned";
}

TEST_F(FilterRemoval, DisableFiltersWaitsForARunningHandlerAndNoCallBeginsAfterwards) {
  ExpectToWaitForTheRunningHandler([this] { return Disable({1}); });
}

TEST_F(FilterRemoval, DetachHandlerWaitsForARunningHandlerAndNoCallBeginsAfterwards) {
  ExpectToWaitForTheRunningHandler([this] { return m_source->DetachHandler(1); });
}

TEST_F(FilterRemoval, DeleteFiltersWaitsForARunningHandlerAndNoCallBeginsAfterwards) {
  ExpectToWaitForTheRunningHandler([this] { return Delete({1}); });
}

TEST_F(FilterRemoval, DisableFiltersDoesNotWaitForTheHandlersOfOtherFilters) {
  HeldCall held;
  Register(1, held.handler);
  Register(2, zym::CreateObject<Handler>());
  std::thread sender([this] { SendEvent(); });
  held.entered.Wait();
  EXPECT_EQ(Disable({2}), zym::ZYM_OK);
  EXPECT_FALSE(held.left);
  held.release.Open();
  sender.join();
}

TEST_F(FilterRemoval, DisableFiltersWaitsForEveryRunningCallOfAFilter) {
  std::array<Gate, 2> entered;
  std::array<Gate, 2> release;
  std::atomic<std::size_t> calls{0};
  std::atomic<int> left{0};
  Register(1, zym::CreateObject<Handler>([&](std::uint32_t) {
             const std::size_t call = calls++;
             entered[call].Open();
             release[call].Wait();
             ++left;
           }));
  std::array<std::thread, 2> senders;
  for (std::thread& sender : senders) sender = std::thread([this] { SendEvent(); });
  for (Gate& gate : entered) gate.Wait();
  int leftAtReturn = 0;
  Call disable([&] {
    Disable({1});
    leftAtReturn = left;
  });
  EXPECT_TRUE(disable.IsBlocked());
  release[0].Open();
  EXPECT_TRUE(Eventually([&] { return left == 1; }));
  EXPECT_TRUE(disable.IsBlocked());
  release[1].Open();
  disable.Join();
  EXPECT_EQ(leftAtReturn, 2);
  for (std::thread& sender : senders) sender.join();
}

TEST_F(FilterRemoval, AFilterThatIsDeletedDuringTheWalkIsNotCalledAndTheWalkGoesOn) {
  const auto others = zym::CreateObject<Handler>();
  HeldCall held;
  Register(1, others);
  Register(2, held.handler);
  Register(3, others);
  Register(4, others);
  std::thread sender([this] { SendEvent(); });
  held.entered.Wait();
  EXPECT_EQ(Delete({3}), zym::ZYM_OK);
  held.release.Open();
  sender.join();
  EXPECT_EQ(others->Calls(), (std::vector<std::uint32_t>{1, 4}));
}

TEST_F(FilterRemoval, TheTableMayMoveDuringACallAndNobodyIsCalledTwiceOrForgotten) {
  const auto others = zym::CreateObject<Handler>();
  HeldCall held;
  Register(1, others);
  Register(2, others);
  Register(3, held.handler);
  Register(4, others);
  Register(5, others);
  std::thread sender([this] { SendEvent(); });
  held.entered.Wait();
  // Filter 3 stands first now; the walk goes on two places behind it and comes around.
  EXPECT_EQ(Delete({1, 2}), zym::ZYM_OK);
  held.release.Open();
  sender.join();
  std::vector<std::uint32_t> calls = others->Calls();
  std::ranges::sort(calls);
  EXPECT_EQ(calls, (std::vector<std::uint32_t>{1, 2, 4, 5}));
  EXPECT_EQ(held.handler->Calls().size(), 1U);
  EXPECT_EQ(Disable({3}), zym::ZYM_OK) << "its use count was put back where it stands now";
}

TEST_F(FilterRemoval, AFilterThatIsDeletedByAnotherThreadDuringItsOwnCallIsGoneAndTheWalkGoesOn) {
  const auto others = zym::CreateObject<Handler>();
  HeldCall held;
  Register(1, held.handler);
  Register(2, others);
  std::thread sender([this] { SendEvent(); });
  held.entered.Wait();
  Call remove([&] { EXPECT_EQ(Delete({1}), zym::ZYM_OK); });
  EXPECT_TRUE(remove.IsBlocked());
  held.release.Open();
  remove.Join();
  sender.join();
  EXPECT_FALSE(IsThere(1));
  EXPECT_EQ(others->Calls(), (std::vector<std::uint32_t>{2}));
}

TEST_F(FilterRemoval, AHandlerLivesUntilItsLastCallReturns) {
  std::atomic<bool> destroyed{false};
  struct Mark {
    explicit Mark(std::atomic<bool>& f) : flag(f) {}
    std::atomic<bool>& flag;
    ~Mark() { flag = true; }
  };
  Gate entered;
  Gate release;
  bool destroyedDuringCall = true;
  {
    auto mark = std::make_shared<Mark>(destroyed);
    Register(1, zym::CreateObject<Handler>([&, mark](std::uint32_t) {
               entered.Open();
               release.Wait();
               destroyedDuringCall = destroyed;
             }));
  }
  std::thread sender([this] { SendEvent(); });
  entered.Wait();
  Call detach([&] { m_source->DetachHandler(1); });
  EXPECT_TRUE(detach.IsBlocked());
  release.Open();
  detach.Join();
  sender.join();
  EXPECT_FALSE(destroyedDuringCall);
  EXPECT_TRUE(destroyed);
}

TEST_F(FilterRemoval, ManyThreadsSendAndChangeAtOnceAndNoCallOutlivesItsRemoval) {
  constexpr int kRounds = 300;
  std::atomic<bool> done{false};
  std::atomic<int> lateCalls{0};
  std::vector<std::thread> senders;
  for (int i = 0; i < 2; ++i)
    senders.emplace_back([&] {
      while (!done) SendEvent();
    });
  const auto change = [&](std::uint32_t id) {
    for (int round = 0; round < kRounds; ++round) {
      std::atomic<bool> removed{false};
      Register(id, zym::CreateObject<Handler>([&](std::uint32_t) {
                 if (removed) ++lateCalls;
               }));
      switch (round % 3) {
        case 0:
          Disable({id});
          break;
        case 1:
          m_source->DetachHandler(id);
          break;
        default:
          break;
      }
      Delete({id});
      removed = true;
    }
  };
  std::vector<std::thread> changers;
  for (const std::uint32_t id : {1U, 2U, 3U}) changers.emplace_back(change, id);
  for (std::thread& changer : changers) changer.join();
  done = true;
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(lateCalls, 0);
}

}  // namespace
}  // namespace qor::process_manager
