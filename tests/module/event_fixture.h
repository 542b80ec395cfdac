// The loaded module with its source of process events on the real kernel, and a handler that records them.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "module/module_host.h"
#include "support/actor.h"
#include "support/own_process.h"
#include "support/rights.h"
#include "support/threads.h"

namespace test_support {

inline constexpr std::uint32_t kCreate = system_interceptors::event_type::kCreateProcess;
inline constexpr std::uint32_t kExit = system_interceptors::event_type::kExitProcess;
inline constexpr const char* kPollThread = "vornPrcMonPoll";

// What the life of a program that was started is: the fork, the end of the forked image, the program, its
// end.
inline const std::vector<std::uint32_t> kForkAndExec = {kCreate, kExit, kCreate, kExit};

inline std::vector<std::uint32_t> Types(const std::vector<SeenEvent>& events) {
  std::vector<std::uint32_t> types;
  for (const SeenEvent& event : events) types.push_back(event.type);
  return types;
}

inline bool IsExecOf(pid_t pid, const SeenEvent& event) {
  return event.pid == static_cast<std::uint32_t>(pid) && event.type == kCreate && event.fromExec == 1;
}

class EventFixture : public testing::Test {
 protected:
  // The interceptor with an active filter of each type; the source isn't enabled yet.
  void SetUp() override {
    SKIP_IF(MissingProcConnector());
    ASSERT_EQ(m_host.CreateInterceptor(m_interceptor), zym::ZYM_OK);
    ASSERT_EQ(zym::QueryInterface(m_interceptor, m_control.Ref()), zym::ZYM_OK);
    for (const std::uint32_t type : {kCreate, kExit}) {
      std::uint32_t id = 0;
      ASSERT_EQ(m_interceptor->RegisterNonBlockingFilterAttachHandler({.type = type}, true, 0,
                                                                      m_handler.get(), &id),
                zym::ZYM_OK);
      m_filters.push_back(id);
    }
  }

  void TearDown() override {
    if (HasFailure() && m_host.host.tracer->Has("Error on recv() from netlink socket: No buffer space"))
      std::puts("The kernel dropped events meanwhile: something beside this test makes very many processes.");
  }

  void Enable() {
    ASSERT_EQ(m_control->EnableNonBlockingInterceptor(qor::process_manager::non_blocking_type::kNetlink),
              zym::ZYM_OK);
  }
  zym::result_t Disable() {
    return m_control->DisableNonBlockingInterceptor(qor::process_manager::non_blocking_type::kNetlink);
  }

  // Every event of what happened before this call has come.
  void Drain() const {
    const auto marker = static_cast<std::uint32_t>(RunTrue());
    EXPECT_TRUE(m_handler->WaitFor(
        [&](const SeenEvent& event) { return event.pid == marker && event.type == kExit; }));
  }
  // All events of a pid so far.
  std::vector<SeenEvent> LifeOf(pid_t pid) const {
    Drain();
    std::vector<SeenEvent> life;
    for (const SeenEvent& event : m_handler->Events())
      if (event.pid == static_cast<std::uint32_t>(pid)) life.push_back(event);
    return life;
  }

  // Waits for the event of a program that still waits for something: it can't be gone when it is read. The
  // unique pid of the image.
  std::uint64_t WaitForImage(pid_t pid, const std::string& path) const {
    const std::u16string image(path.begin(), path.end());
    const auto event = m_handler->WaitFor(
        [&](const SeenEvent& seen) { return IsExecOf(pid, seen) && seen.imagePath == image; });
    EXPECT_TRUE(event) << path;
    return event ? event->uniquePid : 0;
  }
  std::uint64_t WaitForCommand(pid_t pid, const std::u16string& commandLine) const {
    const auto event = m_handler->WaitFor(
        [&](const SeenEvent& seen) { return IsExecOf(pid, seen) && seen.commandLine == commandLine; });
    EXPECT_TRUE(event);
    return event ? event->uniquePid : 0;
  }
  void WaitForEnd(std::uint64_t image) const {
    EXPECT_TRUE(m_handler->WaitFor(
        [&](const SeenEvent& seen) { return seen.uniquePid == image && seen.type == kExit; }));
  }

  // It is, or it comes to its end by itself.
  static bool PollThreadIsGone() {
    return Eventually([] { return ThreadsNamed(kPollThread).empty(); });
  }

  system_interceptors::interceptor_facade::FilterIds Filters() {
    return {m_filters.data(), m_filters.data() + m_filters.size()};
  }

  ModuleHost m_host;
  std::vector<std::uint32_t> m_filters;  // create_process, exit_process
  zym::intrusive_ptr<RecordingHandler> m_handler = zym::CreateObject<RecordingHandler>();
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> m_interceptor;
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> m_control;
};

}  // namespace test_support
