// Events on their way when memory gives out at each allocation.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>

#include "module/memory_faults.h"
#include "qor_common/unique_fd.h"
#include "support/rights.h"
#include "support/threads.h"

namespace {

using namespace test_support;
using namespace system_interceptors;
using qor::UniqueFd;
using Failing = HeapFaults::Failing;
using Threads = HeapFaults::Threads;
namespace non_blocking_type = qor::process_manager::non_blocking_type;

// A child that takes each step when it is told to: it is forked, becomes another program, and ends.
class SteppedChild {
 public:
  SteppedChild() {
    int step[2];
    int end[2];
    EXPECT_EQ(::pipe2(step, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(end, O_CLOEXEC), 0);
    m_pid = ::fork();
    if (m_pid == 0) {
      char byte = 0;
      ::dup2(end[0], STDIN_FILENO);  // which the new program waits on
      ::close(step[1]);
      ::close(end[1]);
      if (::read(step[0], &byte, 1) != 0) ::_exit(1);
      const char* const environment[] = {"NAME=a value that is too long for a string of its own", nullptr};
      ::execle("/bin/cat", "cat", nullptr, environment);
      ::_exit(1);
    }
    ::close(step[0]);
    ::close(end[0]);
    m_step.Reset(step[1]);
    m_end.Reset(end[1]);
  }
  ~SteppedChild() { End(); }

  [[nodiscard]] pid_t Pid() const { return m_pid; }
  void Execute() { m_step.Reset(); }
  void End() {
    Execute();
    m_end.Reset();
    if (m_pid > 0) ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }

 private:
  pid_t m_pid = -1;
  UniqueFd m_step;
  UniqueFd m_end;
};

// Counts the events of the process that the test looks at.
class LifeHandler : public zym::object::Ifaces<event_processing::INonBlockingEventHandler> {
 public:
  void OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t) override {
    const HostsOwnMemory own;
    const std::scoped_lock lock(m_mutex);
    ++m_events[event->GetPid()];
    zym::types::range_t<const std::uint8_t*> path;
    event->GetParam(event_param::kImagePath, &path);
    constexpr std::u16string_view kProgram = u"/cat";
    const std::u16string_view seen(reinterpret_cast<const char16_t*>(path.begin()),
                                   path.size() / sizeof(char16_t));
    if (event->GetType() == event_type::kExitProcess && seen.ends_with(kProgram))
      m_ended.insert(event->GetPid());
  }

  std::size_t EventsOf(pid_t pid) const {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_events.find(static_cast<std::uint32_t>(pid));
    return found != m_events.end() ? found->second : 0;
  }
  // The end of the program that the process became was told.
  bool HasEnded(pid_t pid) const {
    const std::scoped_lock lock(m_mutex);
    return m_ended.contains(static_cast<std::uint32_t>(pid));
  }

 private:
  mutable std::mutex m_mutex;  // guards all below
  std::map<std::uint32_t, std::size_t> m_events;
  std::set<std::uint32_t> m_ended;
};

class EventMemoryFaults : public NetlinkMemoryFaults {
 protected:
  void SetUp() override {
    NetlinkMemoryFaults::SetUp();
    if (IsSkipped()) return;
    ASSERT_EQ(zym::QueryInterface(m_facade.interceptor, m_control.Ref()), zym::ZYM_OK);
    for (const std::uint32_t type : {event_type::kCreateProcess, event_type::kExitProcess}) {
      std::uint32_t id = 0;
      ASSERT_EQ(m_facade.interceptor->RegisterNonBlockingFilterAttachHandler({.type = type}, true, 0,
                                                                             m_handler.get(), &id),
                zym::ZYM_OK);
    }
    constexpr std::uint32_t kType = non_blocking_type::kNetlink | non_blocking_type::kFullProcessInfo;
    ASSERT_EQ(m_control->EnableNonBlockingInterceptor(kType), zym::ZYM_OK);
  }

  std::size_t EventsOf(pid_t pid) const { return m_handler->EventsOf(pid); }
  bool HasEnded(pid_t pid) const { return m_handler->HasEnded(pid); }

  // On a busy machine the kernel may drop events before they are read: that round tells nothing.
  bool Dropped() const { return m_facade.host.host.tracer->Has(300, "Error on recv() from netlink socket"); }

  // The whole life of one child; gives its pid.
  pid_t Live(const HeapFaults* faults = nullptr) const {
    const auto fired = [&] { return Dropped() || (faults != nullptr && faults->Fired()); };
    SteppedChild child;
    const pid_t pid = child.Pid();
    EXPECT_TRUE(Eventually([&] { return m_facade.host.children->HasForked(pid) || fired(); }));
    child.Execute();
    EXPECT_TRUE(Eventually([&] { return m_facade.host.children->HasExecuted(pid) || fired(); }));
    child.End();
    return pid;
  }
  // The same with memory enough: all four events of it come.
  void ExpectAHealthyLife() const {
    const pid_t pid = Live();
    EXPECT_TRUE(Eventually([&] { return HasEnded(pid) || Dropped(); }));
    if (!Dropped()) {
      EXPECT_EQ(EventsOf(pid), 4U);
    }
  }

  // Whether an allocation failed; null: it isn't known, as events were dropped.
  std::optional<bool> LiveThrough(Shortage shortage) const {
    RecordingTracer& tracer = *m_facade.host.host.tracer;
    tracer.Clear();
    HeapFaults faults(Threads::kOthers, shortage.failing, shortage.call);
    const pid_t pid = Live(&faults);
    // The last event may be on its way still: the failure has come, or comes no more.
    EXPECT_TRUE(Eventually([&] { return HasEnded(pid) || faults.Fired() || Dropped(); }));
    faults.End();
    ExpectAHealthyLife();
    if (Dropped()) return std::nullopt;
    if (!faults.Fired()) {
      EXPECT_EQ(EventsOf(pid), 4U);
    } else if (EventsOf(pid) < 4) {
      EXPECT_TRUE(tracer.Has(300, "std::bad_alloc") || tracer.Has(300, "Out of memory"))
          << "an event was lost without a word";
    }
    return faults.Fired();
  }

  Facade m_facade;
  zym::intrusive_ptr<LifeHandler> m_handler = zym::CreateObject<LifeHandler>();
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> m_control;
};

// A fork, an execution and an end pass through the reader of /proc, the cache, the factory, the queue and the
// filters. Whatever allocation fails on the way, an event comes, or is lost with a trace that says so, and
// the next process is told whole.
TEST_F(EventMemoryFaults, AnEventComesOrIsLostWithATraceWhateverAllocationFails) {
  ExpectAHealthyLife();
  // A sanitized process is slow to fork.
  const std::uint64_t stride = HeapFaults::SeesAll() ? 1 : 9;
  AtEachAllocation(
      [&](Shortage shortage) {
        SCOPED_TRACE(shortage);
        std::optional<bool> fired;
        for (int attempt = 0; !fired && attempt < 100 && !HasFailure(); ++attempt)
          fired = LiveThrough(shortage);
        EXPECT_TRUE(fired.has_value()) << "events were dropped each time";
        return fired.value_or(false);
      },
      stride);
}

TEST(MemoryFaults, AWholeRunWithFailuresInItKeepsNothing) {
  SKIP_IF(MissingProcConnector());
  ExpectNothingIsKept([] {
    const Facade facade;
    zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
    ASSERT_EQ(zym::QueryInterface(facade.interceptor, control.Ref()), zym::ZYM_OK);
    const auto handler = zym::CreateObject<LifeHandler>();
    std::uint32_t id = 0;
    ASSERT_EQ(facade.interceptor->RegisterNonBlockingFilterAttachHandler({.type = event_type::kExitProcess},
                                                                         true, 0, handler.get(), &id),
              zym::ZYM_OK);
    ASSERT_EQ(control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
    const std::uint64_t stride = HeapFaults::SeesAll() ? 1 : 9;
    for (std::uint64_t call = 0; call < 20; call += stride) {
      const HeapFaults faults(Threads::kOthers, Failing::kOnce, call);
      SteppedChild child;
      EXPECT_TRUE(Eventually([&] { return facade.host.children->Has(child.Pid()); }));
    }
  });
}

}  // namespace
