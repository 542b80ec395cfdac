#include "host_kit/event_view.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "host_kit/process_listener.h"
#include "support/actor.h"
#include "support/own_process.h"
#include "support/rights.h"
#include "support/threads.h"
#include "zym/object.h"

namespace {

using host_kit::EventKind;
using host_kit::EventView;
namespace event_param = system_interceptors::event_param;
namespace event_type = system_interceptors::event_type;
using ISystemEvent = qor::process_manager::ISystemEvent;

// An event with what a test puts into it.
class FakeEvent : public zym::object::Ifaces<ISystemEvent> {
 public:
  zym::result_t GetEventId(const std::uint64_t** id) override {
    *id = &sequence;
    return zym::ZYM_OK;
  }
  zym::result_t GetParam(std::uint32_t param, zym::types::range_t<const std::uint8_t*>* value) override {
    const auto found = params.find(param);
    if (found == params.end()) return zym::ZYM_E_NOT_FOUND;
    *value = {found->second.data(), found->second.data() + found->second.size()};
    return zym::ZYM_OK;
  }
  std::uint32_t GetType() override { return type; }
  qor::PidType GetPid() override { return 7; }
  qor::PidType GetCpid() override { return creatorPid; }
  bool IsFake() override { return true; }
  bool Complete() override { return true; }
  zym::types::string16_t ToString() override { return {}; }

  template <class T>
  void Put(std::uint32_t param, T value) {
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&value);
    params[param].assign(bytes, bytes + sizeof(value));
  }
  void Put(std::uint32_t param, std::u16string_view text) {
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    params[param].assign(bytes, bytes + text.size() * sizeof(char16_t));
  }

  std::uint64_t sequence = 42;
  std::uint32_t type = event_type::kCreateProcess;
  qor::PidType creatorPid = qor::kNoPid;
  std::map<std::uint32_t, std::vector<std::uint8_t>> params;
};

class EventViewTest : public testing::Test {
 protected:
  const zym::intrusive_ptr<FakeEvent> m_event = zym::CreateObject<FakeEvent>();
  const EventView m_view{*m_event};
};

TEST_F(EventViewTest, WhatTheEventDoesNotKnowIsAbsent) {
  EXPECT_FALSE(m_view.GetTime());
  EXPECT_FALSE(m_view.GetUniquePid());
  EXPECT_FALSE(m_view.GetRealUserId());
  EXPECT_FALSE(m_view.GetImagePath());
  EXPECT_FALSE(m_view.GetCommandLine());
}

TEST_F(EventViewTest, AnIdOfAllOnesIsAbsent) {
  EXPECT_FALSE(m_view.GetCreatorPid());
  m_event->Put(event_param::kParentPid, qor::kNoPid);
  m_event->Put(event_param::kUniqueParentPid, qor::kNoUniquePid);
  m_event->Put(event_param::kMountNamespaceId, qor::kNoMountNamespace);
  EXPECT_FALSE(m_view.GetParentPid());
  EXPECT_FALSE(m_view.GetUniqueParentPid());
  EXPECT_FALSE(m_view.GetMountNamespaceId());
}

TEST_F(EventViewTest, AnEmptyTextIsAbsentForItCouldNotBeRead) {
  m_event->Put(event_param::kImagePath, std::u16string_view());
  EXPECT_FALSE(m_view.GetImagePath());
  EXPECT_FALSE(m_view.GetText(event_param::kImagePath));
}

TEST_F(EventViewTest, ATextComesAsUtf8AndAsItIs) {
  const char16_t text[] = {u'/', u'\u00fc', 0xdc00, u'x'};
  m_event->Put(event_param::kWorkingDirectory, std::u16string_view(text, std::size(text)));
  EXPECT_EQ(m_view.GetWorkingDirectory(), "/\u00fc\ufffdx");
  EXPECT_EQ(m_view.GetText(event_param::kWorkingDirectory), std::u16string_view(text, std::size(text)));
}

TEST_F(EventViewTest, ANumberOfAnotherSizeIsAbsent) {
  m_event->Put(event_param::kState, std::uint64_t{1});
  EXPECT_FALSE(m_view.GetState());
  EXPECT_EQ(m_view.GetNumber<std::uint64_t>(event_param::kState), 1U);
}

TEST_F(EventViewTest, TheKindComesFromTheTypeAndTheWayOfTheCreate) {
  m_event->Put(event_param::kFromExec, std::uint32_t{0});
  EXPECT_EQ(m_view.GetKind(), EventKind::kFork);
  m_event->Put(event_param::kFromExec, std::uint32_t{1});
  EXPECT_EQ(m_view.GetKind(), EventKind::kExec);
  m_event->type = event_type::kExitProcess;
  EXPECT_EQ(m_view.GetKind(), EventKind::kExit);
  m_event->type = event_type::kFileChanged;
  EXPECT_EQ(m_view.GetKind(), EventKind::kOther);
}

// What a view says of an event of a real process.
struct Seen {
  EventKind kind;
  std::uint64_t sequence;
  bool fake;
  host_kit::WallTime time;
  std::optional<std::uint64_t> uniquePid;
  std::optional<std::uint32_t> parentPid, creatorPid, userId, state;
  std::optional<std::uint64_t> mountNamespace;
  std::optional<std::string> path, directory, commandLine;
};

// The events of a program that is started, has come to wait, and ends.
class RealEventView : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_IF(test_support::MissingProcConnector());
    const host_kit::LoadedModule module(PROCESS_MANAGER_MODULE);
    const host_kit::Bootstrap host(module);
    const host_kit::ProcessListener listener(host, [this](const EventView& view) { Keep(view); });
    m_before = std::chrono::system_clock::now();
    test_support::Actor actor({"wait"});
    m_pid = static_cast<std::uint32_t>(actor.Pid());
    ASSERT_TRUE(test_support::Eventually([this] { return Count() == 3; })) << "fork, exit, exec";
    actor.GoOn();
    ASSERT_EQ(actor.Wait(), 0);
    m_after = std::chrono::system_clock::now();
    ASSERT_TRUE(test_support::Eventually([this] { return Count() == 4; })) << "and its end";
  }

  void Keep(const EventView& view) {
    const std::scoped_lock lock(m_mutex);
    m_events[view.GetPid()].push_back({
        .kind = view.GetKind(),
        .sequence = view.GetSequence(),
        .fake = view.IsFake(),
        .time = view.GetTime().value(),
        .uniquePid = view.GetUniquePid(),
        .parentPid = view.GetParentPid(),
        .creatorPid = view.GetCreatorPid(),
        .userId = view.GetRealUserId(),
        .state = view.GetState(),
        .mountNamespace = view.GetMountNamespaceId(),
        .path = view.GetImagePath(),
        .directory = view.GetWorkingDirectory(),
        .commandLine = view.GetCommandLine(),
    });
  }
  std::size_t Count() {
    const std::scoped_lock lock(m_mutex);
    return m_events[m_pid].size();
  }
  const std::vector<Seen>& Life() { return m_events[m_pid]; }

  std::uint32_t m_pid = 0;
  std::chrono::system_clock::time_point m_before, m_after;

 private:
  std::mutex m_mutex;  // guards m_events
  std::map<std::uint32_t, std::vector<Seen>> m_events;
};

TEST_F(RealEventView, TheLifeOfAProgramIsForkExitExecExit) {
  ASSERT_EQ(Life().size(), 4U);
  EXPECT_EQ(Life()[0].kind, EventKind::kFork);
  EXPECT_EQ(Life()[1].kind, EventKind::kExit);
  EXPECT_EQ(Life()[2].kind, EventKind::kExec);
  EXPECT_EQ(Life()[3].kind, EventKind::kExit);
  for (std::size_t i = 1; i < 4; ++i) EXPECT_GT(Life()[i].sequence, Life()[i - 1].sequence);
  EXPECT_EQ(Life()[0].uniquePid, Life()[1].uniquePid);
  EXPECT_NE(Life()[1].uniquePid, Life()[2].uniquePid);
  EXPECT_EQ(Life()[2].uniquePid, Life()[3].uniquePid);
}

TEST_F(RealEventView, AnExecSaysWhatRunsAndForWhom) {
  ASSERT_EQ(Life().size(), 4U);
  const Seen& exec = Life()[2];
  const std::string program = std::filesystem::canonical(test_support::Actor::Path());
  EXPECT_FALSE(exec.fake);
  EXPECT_EQ(exec.path, program);
  EXPECT_EQ(exec.directory, std::filesystem::current_path());
  ASSERT_TRUE(exec.commandLine);
  EXPECT_TRUE(exec.commandLine->ends_with(" wait")) << *exec.commandLine;
  EXPECT_EQ(exec.parentPid, static_cast<std::uint32_t>(::getpid()));
  EXPECT_EQ(exec.creatorPid, m_pid);
  EXPECT_EQ(exec.userId, ::getuid());
  EXPECT_TRUE(exec.mountNamespace);
  EXPECT_EQ(exec.state, qor::kCreated);
}

TEST_F(RealEventView, TimesAreThoseOfTheWallClock) {
  using namespace std::chrono_literals;
  constexpr auto kSlack = 100ms;  // the two clocks are read one after the other
  for (const Seen& event : Life()) {
    EXPECT_GE(event.time, m_before - kSlack);
    EXPECT_LE(event.time, m_after + kSlack);
  }
}

}  // namespace
