// A process of which a test can say whether it runs.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <new>
#include <thread>

#include "support/threads.h"

namespace test_support {

// A process whose two threads count, as long as they run.
class Counting {
 public:
  Counting() {
    void* const memory =
        ::mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    m_counters = new (memory) Counters;
    m_pid = ::fork();
    if (m_pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      std::thread([this] { Count(m_counters->of[1]); }).detach();
      Count(m_counters->of[0]);
    }
    EXPECT_TRUE(IsRunning());
  }
  ~Counting() {
    End();
    ::munmap(m_counters, sizeof(Counters));
  }
  Counting(const Counting&) = delete;
  Counting& operator=(const Counting&) = delete;

  [[nodiscard]] std::uint32_t Pid() const { return static_cast<std::uint32_t>(m_pid); }
  // What one of the threads counts. It lies in memory that both processes share, at one address.
  [[nodiscard]] const std::atomic<std::uint64_t>& Counter() const { return m_counters->of[0]; }
  void Kill(int signal) const { ::kill(m_pid, signal); }
  // Returns when both threads have stopped.
  void Stop() const {
    Kill(SIGSTOP);
    siginfo_t info;
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(m_pid), &info, WSTOPPED), 0);
  }
  void End() {
    if (m_pid <= 0) return;
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }

  // Both threads go on.
  [[nodiscard]] bool IsRunning() const {
    const std::uint64_t before[] = {m_counters->of[0], m_counters->of[1]};
    return Eventually([&] { return m_counters->of[0] != before[0] && m_counters->of[1] != before[1]; });
  }
  // Neither does, for as long as it takes to look many times.
  [[nodiscard]] bool IsStill() const {
    const std::uint64_t before[] = {m_counters->of[0], m_counters->of[1]};
    for (int i = 0; i < 200; ++i) {
      if (m_counters->of[0] != before[0] || m_counters->of[1] != before[1]) return false;
      std::this_thread::yield();
    }
    return true;
  }

 private:
  struct Counters {
    std::atomic<std::uint64_t> of[2];
  };

  [[noreturn]] static void Count(std::atomic<std::uint64_t>& counter) {
    for (;;) ++counter;
  }

  Counters* m_counters;
  pid_t m_pid;
};

}  // namespace test_support
