// Real processes through the real kernel, the loaded module and a handler.
#include <gtest/gtest.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "module/module_host.h"
#include "support/own_process.h"

namespace {

using test_support::ModuleHost;
using test_support::RecordingHandler;
using test_support::SeenEvent;
using namespace system_interceptors;
namespace non_blocking_type = qor::process_manager::non_blocking_type;

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

  // Runs in a child; the child must not return.
  template <class F>
  static pid_t Fork(F run) {
    const pid_t child = ::fork();
    if (child == 0) {
      run();
      ::_exit(0);
    }
    return child;
  }

  static void Reap(pid_t child) { ASSERT_EQ(::waitpid(child, nullptr, 0), child); }

  // All events of a process, once its end has come.
  std::vector<SeenEvent> LifeOf(pid_t pid) {
    // The last exit is the one that no create follows: wait for a marker that is made after the process has
    // ended.
    const pid_t marker = Fork([] {});
    Reap(marker);
    m_handler->WaitFor([&](const SeenEvent& event) {
      return event.pid == static_cast<std::uint32_t>(marker) && event.type == event_type::kExitProcess;
    });
    std::vector<SeenEvent> life;
    for (const SeenEvent& event : m_handler->Events())
      if (event.pid == static_cast<std::uint32_t>(pid)) life.push_back(event);
    return life;
  }

  interceptor_facade::FilterIds Filters() { return {m_filters.data(), m_filters.data() + m_filters.size()}; }

  ModuleHost m_host;
  std::vector<std::uint32_t> m_filters;  // create_process, exit_process
  zym::intrusive_ptr<RecordingHandler> m_handler = zym::CreateObject<RecordingHandler>();
  zym::intrusive_ptr<interceptor_facade::IInterceptor2> m_interceptor;
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> m_control;
};

TEST_F(ModuleEvents, AForkedProcessIsCreatedAndEnds) {
  const pid_t child = Fork([] {});
  Reap(child);
  const std::vector<SeenEvent> life = LifeOf(child);
  ASSERT_EQ(life.size(), 2U);
  EXPECT_EQ(life[0].type, event_type::kCreateProcess);
  EXPECT_EQ(life[0].fromExec, 0U);
  EXPECT_EQ(life[0].parentPid, static_cast<std::uint32_t>(::getpid()));
  EXPECT_EQ(life[1].type, event_type::kExitProcess);
  EXPECT_EQ(life[0].uniquePid, life[1].uniquePid);
  EXPECT_LT(life[0].sequence, life[1].sequence);
}

TEST_F(ModuleEvents, AnExecEndsTheOldImageBeforeItCreatesTheNewOne) {
  const pid_t child = Fork([] { ::execl("/bin/sleep", "sleep", "0.2", nullptr); });
  Reap(child);
  const std::vector<SeenEvent> life = LifeOf(child);
  ASSERT_EQ(life.size(), 4U);
  EXPECT_EQ(life[1].type, event_type::kExitProcess);
  EXPECT_EQ(life[1].uniquePid, life[0].uniquePid);
  EXPECT_EQ(life[2].type, event_type::kCreateProcess);
  EXPECT_EQ(life[2].fromExec, 1U);
  EXPECT_NE(life[2].uniquePid, life[0].uniquePid);
  EXPECT_EQ(life[2].creatorPid, static_cast<std::uint32_t>(child))
      << "the creator of an exec's image is the process";
  EXPECT_EQ(life[2].imagePath, u"/usr/bin/sleep");
  EXPECT_EQ(life[2].commandLine, u"sleep 0.2");
  EXPECT_EQ(life[3].uniquePid, life[2].uniquePid);
}

TEST_F(ModuleEvents, ThreadsMakeNoEvents) {
  const pid_t child = Fork([] {
    pthread_t thread{};
    ::pthread_create(
        &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
    ::pthread_join(thread, nullptr);
  });
  Reap(child);
  EXPECT_EQ(LifeOf(child).size(), 2U);
}

// The kernel tells the end of the leading thread as the end of the process (its pid is the tgid), although
// another thread goes on and takes its place with an exec.
TEST_F(ModuleEvents, AnExecByAThreadIsReportedUnderItsProcess) {
  static int go[2];
  ASSERT_EQ(::pipe(go), 0);
  const pid_t child = Fork([] {
    pthread_t thread{};
    const auto run = [](void*) -> void* {
      char byte = 0;
      if (::read(go[0], &byte, 1) == 1) ::execl("/bin/sleep", "sleep", "0.2", nullptr);
      ::_exit(1);
    };
    ::pthread_create(&thread, nullptr, run, nullptr);
    ::syscall(SYS_exit, 0);  // the thread alone, without the C++ unwinding of pthread_exit
  });
  m_handler->WaitFor([&](const SeenEvent& event) {
    return event.pid == static_cast<std::uint32_t>(child) && event.type == event_type::kExitProcess;
  });
  ASSERT_EQ(::write(go[1], "", 1), 1);
  Reap(child);
  ::close(go[0]);
  ::close(go[1]);
  const std::vector<SeenEvent> life = LifeOf(child);
  ASSERT_EQ(life.size(), 5U);
  EXPECT_EQ(life[3].type, event_type::kCreateProcess);
  EXPECT_EQ(life[3].fromExec, 1U);
  EXPECT_EQ(life[3].imagePath, u"/usr/bin/sleep");
  EXPECT_EQ(life[4].uniquePid, life[3].uniquePid);
}

TEST_F(ModuleEvents, ACredentialChangeMakesNoEventAndReachesTheNextOne) {
  const pid_t child = Fork([] {
    if (::setresuid(12345, 12345, 12345) != 0) ::_exit(1);
    ::execl("/bin/true", "true", nullptr);
  });
  Reap(child);
  const std::vector<SeenEvent> life = LifeOf(child);
  ASSERT_EQ(life.size(), 4U);
  EXPECT_EQ(life[2].realUserId, 12345U);
}

TEST_F(ModuleEvents, ACommandLineOf128KiBArrivesWhole) {
  const std::string argument(128 * 1024 - 1, 'x');  // the longest that the kernel takes as one string
  const pid_t child = Fork([&] { ::execl("/bin/sh", "sh", "-c", "sleep 0.2", argument.c_str(), nullptr); });
  Reap(child);
  const std::vector<SeenEvent> life = LifeOf(child);
  ASSERT_GE(life.size(), 4U);
  const std::u16string expected = u"sh -c sleep 0.2 " + std::u16string(argument.begin(), argument.end());
  EXPECT_TRUE(life[2].commandLine == expected);
}

TEST_F(ModuleEvents, NothingComesAfterTheSourceIsDisabled) {
  ASSERT_EQ(m_control->DisableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
  const pid_t child = Fork([] {});
  Reap(child);
  ASSERT_EQ(m_control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
  EXPECT_TRUE(LifeOf(child).empty());
}

TEST_F(ModuleEvents, TheSourceRestsWithoutAnActiveFilterAndComesBackWithTheNext) {
  ASSERT_EQ(m_interceptor->DisableFilters(Filters()), zym::ZYM_OK);
  EXPECT_TRUE(test_support::ThreadsNamed("vornPrcMonPoll").empty());
  const pid_t unseen = Fork([] {});
  Reap(unseen);
  ASSERT_EQ(m_interceptor->EnableFilters(Filters()), zym::ZYM_OK);
  const pid_t seen = Fork([] {});
  Reap(seen);
  EXPECT_EQ(LifeOf(seen).size(), 2U);
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
  const pid_t child = Fork([] {});
  Reap(child);
  const std::vector<SeenEvent> life = LifeOf(child);
  ASSERT_EQ(life.size(), 1U);
  EXPECT_EQ(life[0].type, event_type::kExitProcess);
}

TEST_F(ModuleEvents, SequenceNumbersAndUniquePidsAreUnique) {
  for (int i = 0; i < 50; ++i) Reap(Fork([] { ::execl("/bin/true", "true", nullptr); }));
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
