// Real processes through the real kernel, the loaded module and a handler.
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "module/module_host.h"
#include "support/actor.h"
#include "support/own_process.h"

namespace {

using test_support::Actor;
using test_support::ModuleHost;
using test_support::RecordingHandler;
using test_support::RunTrue;
using test_support::SeenEvent;
using namespace system_interceptors;
namespace non_blocking_type = qor::process_manager::non_blocking_type;

constexpr std::uint32_t kCreate = event_type::kCreateProcess;
constexpr std::uint32_t kExit = event_type::kExitProcess;
// What the life of a program that was started is: the fork, the end of the forked image, the program, its
// end.
const std::vector<std::uint32_t> kForkAndExec = {kCreate, kExit, kCreate, kExit};

std::vector<std::uint32_t> Types(const std::vector<SeenEvent>& events) {
  std::vector<std::uint32_t> types;
  for (const SeenEvent& event : events) types.push_back(event.type);
  return types;
}

bool IsExecOf(pid_t pid, const SeenEvent& event) {
  return event.pid == static_cast<std::uint32_t>(pid) && event.type == kCreate && event.fromExec == 1;
}

class ModuleEvents : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the proc connector needs CAP_NET_ADMIN: run as root";
    ASSERT_EQ(m_host.CreateInterceptor(m_interceptor), zym::ZYM_OK);
    ASSERT_EQ(zym::QueryInterface(m_interceptor, m_control.Ref()), zym::ZYM_OK);
    for (const std::uint32_t type : {event_type::kCreateProcess, event_type::kExitProcess}) {
      std::uint32_t id = 0;
      ASSERT_EQ(m_interceptor->RegisterNonBlockingFilterAttachHandler({.type = type}, true, 0,
                                                                      m_handler.get(), &id),
                zym::ZYM_OK);
      m_filters.push_back(id);
    }
    ASSERT_EQ(m_control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
  }

  // All events of a process, once its end has come.
  std::vector<SeenEvent> LifeOf(pid_t pid) {
    // The last exit is the one that no create follows: wait for a marker that is made after the process has
    // ended.
    const pid_t marker = RunTrue();
    m_handler->WaitFor([&](const SeenEvent& event) {
      return event.pid == static_cast<std::uint32_t>(marker) && event.type == event_type::kExitProcess;
    });
    std::vector<SeenEvent> life;
    for (const SeenEvent& event : m_handler->Events())
      if (event.pid == static_cast<std::uint32_t>(pid)) life.push_back(event);
    return life;
  }

  // Waits for the event of a program that still waits for something: it can't be gone when it is read. The
  // unique pid of the image.
  std::uint64_t WaitForImage(pid_t pid, const std::string& path) {
    const std::u16string image(path.begin(), path.end());
    const auto event = m_handler->WaitFor(
        [&](const SeenEvent& seen) { return IsExecOf(pid, seen) && seen.imagePath == image; });
    EXPECT_TRUE(event) << path;
    return event ? event->uniquePid : 0;
  }
  void WaitForCommand(pid_t pid, const std::u16string& commandLine) {
    EXPECT_TRUE(m_handler->WaitFor(
        [&](const SeenEvent& seen) { return IsExecOf(pid, seen) && seen.commandLine == commandLine; }));
  }
  void WaitForEnd(std::uint64_t image) {
    EXPECT_TRUE(m_handler->WaitFor(
        [&](const SeenEvent& seen) { return seen.uniquePid == image && seen.type == kExit; }));
  }

  // A program, in which another thread than the first executes another program.
  static void ExpectExecByThread(const std::vector<SeenEvent>& life) {
    ASSERT_EQ(Types(life), (std::vector{kCreate, kExit, kCreate, kExit, kExit, kCreate, kExit}));
    EXPECT_EQ(life[3].uniquePid, life[2].uniquePid);
    EXPECT_NE(life[5].uniquePid, life[2].uniquePid);
    EXPECT_EQ(life[5].fromExec, 1U);
    EXPECT_EQ(life[5].creatorPid, life[5].pid);
    EXPECT_EQ(life[6].uniquePid, life[5].uniquePid);
  }

  interceptor_facade::FilterIds Filters() { return {m_filters.data(), m_filters.data() + m_filters.size()}; }

  ModuleHost m_host;
  std::vector<std::uint32_t> m_filters;  // create_process, exit_process
  zym::intrusive_ptr<RecordingHandler> m_handler = zym::CreateObject<RecordingHandler>();
  zym::intrusive_ptr<interceptor_facade::IInterceptor2> m_interceptor;
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> m_control;
};

TEST_F(ModuleEvents, AForkedProcessIsCreatedAndEnds) {
  Actor actor({"fork", "say"});
  const pid_t child = actor.HearPid();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(child);
  ASSERT_EQ(life.size(), 2U);
  EXPECT_EQ(life[0].type, event_type::kCreateProcess);
  EXPECT_EQ(life[0].fromExec, 0U);
  EXPECT_EQ(life[0].parentPid, static_cast<std::uint32_t>(actor.Pid()));
  EXPECT_EQ(life[1].type, event_type::kExitProcess);
  EXPECT_EQ(life[0].uniquePid, life[1].uniquePid);
  EXPECT_LT(life[0].sequence, life[1].sequence);
}

TEST_F(ModuleEvents, AnExecEndsTheOldImageBeforeItCreatesTheNewOne) {
  Actor actor({"wait"});
  const pid_t pid = actor.Pid();
  WaitForImage(pid, Actor::Path());  // it can't be gone before it is read
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(pid);
  ASSERT_EQ(Types(life), kForkAndExec);
  EXPECT_EQ(life[1].uniquePid, life[0].uniquePid);
  EXPECT_EQ(life[2].fromExec, 1U);
  EXPECT_NE(life[2].uniquePid, life[0].uniquePid);
  EXPECT_EQ(life[2].creatorPid, static_cast<std::uint32_t>(pid))
      << "the creator of an exec's image is the process";
  EXPECT_EQ(life[2].commandLine, u"actor wait");
  EXPECT_EQ(life[3].uniquePid, life[2].uniquePid);
}

TEST_F(ModuleEvents, ThreadsMakeNoEvents) {
  Actor actor({"thread"});
  ASSERT_EQ(actor.Wait(), 0);
  EXPECT_EQ(Types(LifeOf(actor.Pid())), kForkAndExec);
}

// The kernel tells the end of the leading thread as the end of the process (its pid is the tgid), although
// another thread goes on and takes its place with an exec. What is executed then is the image of a process
// that wasn't known: an end of what nobody saw, and the new image.
TEST_F(ModuleEvents, AnExecByAThreadThatOutlivesTheFirstOneIsReportedUnderItsProcess) {
  Actor actor({"wait", "leave-thread", "wait", "exec", Actor::Path(), "by-thread", "wait"});
  const pid_t pid = actor.Pid();
  const std::uint64_t image = WaitForImage(pid, Actor::Path());
  actor.GoOn();
  WaitForEnd(image);
  actor.GoOn();
  WaitForCommand(pid, u"by-thread wait");
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  ExpectExecByThread(LifeOf(pid));
}

// Here the exec itself ends the leading thread: the kernel tells the end and the exec in one go. When the
// exec is read before the end has been through the dispatcher, the cache has no image to end, says so, and
// the exec isn't told; the process is known again from its next exec on.
TEST_F(ModuleEvents, AnExecByAThreadBesideTheFirstOneIsReportedUnderItsProcessOrTraced) {
  Actor actor({"on-thread", "wait", "exec", Actor::Path(), "by-thread", "say", "wait"});
  const pid_t pid = actor.Pid();
  WaitForImage(pid, Actor::Path());
  actor.GoOn();
  ASSERT_EQ(actor.HearPid(), pid) << "a thread that executes takes the pid of its process";
  LifeOf(pid);  // what is told until here has come
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(pid);
  const std::string missed = "No image of the process awaits its end, pid: " + std::to_string(pid);
  if (m_host.host.tracer->Has(missed)) {
    EXPECT_EQ(Types(life), (std::vector{kCreate, kExit, kCreate, kExit}));
  } else {
    ExpectExecByThread(life);
  }
}

TEST_F(ModuleEvents, ACredentialChangeMakesNoEventAndReachesTheNextOne) {
  Actor actor({"wait", "user", "12345"});
  WaitForImage(actor.Pid(), Actor::Path());
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  const std::vector<SeenEvent> life = LifeOf(actor.Pid());
  ASSERT_EQ(Types(life), kForkAndExec);
  EXPECT_EQ(life[2].realUserId, 0U);
  EXPECT_EQ(life[3].realUserId, 12345U);
}

TEST_F(ModuleEvents, ACommandLineOf128KiBArrivesWhole) {
  // The longest that the kernel takes as one string, with its end. What stands behind an exec isn't run.
  const std::string argument(128 * 1024 - 1, 'x');
  Actor actor({"exec", Actor::Path(), "long", "wait", argument});
  const pid_t pid = actor.Pid();
  const std::u16string expected = u"long wait " + std::u16string(argument.begin(), argument.end());
  EXPECT_TRUE(m_handler->WaitFor(
      [&](const SeenEvent& event) { return IsExecOf(pid, event) && event.commandLine == expected; }));
}

TEST_F(ModuleEvents, NothingComesAfterTheSourceIsDisabled) {
  ASSERT_EQ(m_control->DisableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
  const pid_t child = RunTrue();
  ASSERT_EQ(m_control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
  EXPECT_TRUE(LifeOf(child).empty());
}

TEST_F(ModuleEvents, TheSourceRestsWithoutAnActiveFilterAndComesBackWithTheNext) {
  ASSERT_EQ(m_interceptor->DisableFilters(Filters()), zym::ZYM_OK);
  EXPECT_TRUE(test_support::ThreadsNamed("vornPrcMonPoll").empty());
  const pid_t unseen = RunTrue();
  ASSERT_EQ(m_interceptor->EnableFilters(Filters()), zym::ZYM_OK);
  const pid_t seen = RunTrue();
  EXPECT_EQ(Types(LifeOf(seen)), kForkAndExec);
  EXPECT_TRUE(LifeOf(unseen).empty());
}

TEST_F(ModuleEvents, ASourceThatTheHostDisabledIsNotStartedByAFilter) {
  ASSERT_EQ(m_control->DisableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
  ASSERT_EQ(m_interceptor->DisableFilters(Filters()), zym::ZYM_OK);
  ASSERT_EQ(m_interceptor->EnableFilters(Filters()), zym::ZYM_OK);
  EXPECT_TRUE(test_support::ThreadsNamed("vornPrcMonPoll").empty());
}

TEST_F(ModuleEvents, AFilterGetsTheEventsOfItsTypeAlone) {
  ASSERT_EQ(m_interceptor->DisableFilters({&m_filters[0], &m_filters[0] + 1}), zym::ZYM_OK);
  const pid_t child = RunTrue();
  EXPECT_EQ(Types(LifeOf(child)), (std::vector{kExit, kExit})) << "of the fork's image and of the program's";
}

TEST_F(ModuleEvents, SequenceNumbersAndUniquePidsAreUnique) {
  for (int i = 0; i < 50; ++i) RunTrue();
  LifeOf(::getpid());
  std::set<std::uint64_t> sequences;
  std::set<std::uint64_t> created;
  for (const SeenEvent& event : m_handler->Events()) {
    EXPECT_TRUE(sequences.insert(event.sequence).second) << event.sequence;
    if (event.type == event_type::kCreateProcess) {
      EXPECT_TRUE(created.insert(event.uniquePid).second);
    }
  }
}

}  // namespace
