// How tests wait for other threads: for a fact, with a generous deadline, and never for a time.
#pragma once

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace test_support {

inline constexpr std::chrono::seconds kDeadline{30};

// A door that opens once. A wait that the deadline ends is a failure of the test.
class Gate {
 public:
  void Open() {
    const std::scoped_lock lock(m_mutex);
    m_open = true;
    m_opened.notify_all();
  }
  void Wait() {
    std::unique_lock lock(m_mutex);
    EXPECT_TRUE(m_opened.wait_for(lock, kDeadline, [this] { return m_open; })) << "nobody opened the gate";
  }
  bool IsOpen() const {
    const std::scoped_lock lock(m_mutex);
    return m_open;
  }

 private:
  mutable std::mutex m_mutex;  // guards m_open
  std::condition_variable m_opened;
  bool m_open = false;
};

// Looks again and again until `fact` holds; false: it didn't before the deadline.
template <class Fact>
[[nodiscard]] bool Eventually(Fact fact) {
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (!fact()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A call on a thread of its own, of which a test can say that it has returned or that it waits in the kernel.
class Call {
 public:
  explicit Call(std::function<void()> function)
      : m_thread([this, function = std::move(function)] {
          m_tid = static_cast<pid_t>(::syscall(SYS_gettid));
          function();
          m_returned = true;
        }) {}
  ~Call() { Join(); }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  bool HasReturned() const { return m_returned; }

  // True: the thread came to sleep; false: the call returned instead.
  bool IsBlocked() const {
    EXPECT_TRUE(Eventually([this] { return m_returned || (m_tid != 0 && IsAsleep()); }));
    return !m_returned;
  }

  void Join() {
    if (m_thread.joinable()) m_thread.join();
  }

 private:
  // The third field of the thread's stat, proc(5): S is a sleep that a signal may end, as a futex wait is.
  bool IsAsleep() const {
    std::ifstream stat("/proc/self/task/" + std::to_string(m_tid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const std::size_t comm = text.rfind(')');
    return comm != std::string::npos && comm + 2 < text.size() && text[comm + 2] == 'S';
  }

  std::atomic<pid_t> m_tid{0};
  std::atomic<bool> m_returned{false};
  std::thread m_thread;
};

}  // namespace test_support
