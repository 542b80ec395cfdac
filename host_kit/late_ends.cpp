#include "host_kit/late_ends.h"

#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <system_error>
#include <utility>

#include "host_kit/failure.h"
#include "host_kit/running_threads.h"

namespace host_kit {
namespace {

constexpr const char* kThreadName = "vornKitEnds";
constexpr std::uint64_t kWakeUp = 0;  // no watch has this number

std::uint64_t MonotonicNow() {
  std::timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

bool AddToEpoll(int epoll, int fd, std::uint64_t number) {
  epoll_event event{.events = EPOLLIN, .data = {.u64 = number}};
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

LateEnds::LateEnds(zym::intrusive_ptr<ProcessGuard> guard, OnEnd onEnd) try
    : m_guard(std::move(guard)), m_onEnd(std::move(onEnd)), m_epoll(::epoll_create1(EPOLL_CLOEXEC)) {
  if (!m_epoll || !AddToEpoll(m_epoll.Get(), m_wake.GetDescriptor(), kWakeUp))
    throw std::system_error(errno, std::generic_category());
  m_guard->SetWatcher(
      {.onGoesOn = [this](qor::PidType pid) { Watch(pid); }, .onLostEnd = [this] { Wake(); }});
  try {
    m_thread = std::thread([this] { Run(); });
  } catch (...) {
    m_guard->SetWatcher({});
    throw;
  }
} catch (const std::system_error& error) {
  throw Failure("cannot watch for the ends of processes: " + error.code().message());
}

LateEnds::~LateEnds() {
  m_guard->SetWatcher({});
  {
    const std::scoped_lock lock(m_mutex);
    m_stop = true;
  }
  Wake();
  m_thread.join();
}

// --- on the thread of the guard's caller ---

void LateEnds::Watch(qor::PidType pid) {
  {
    const std::scoped_lock lock(m_mutex);
    if (m_watched.size() < kMostDescriptors) {
      qor::UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
      const bool gone = !process && errno == ESRCH;
      const std::uint64_t watch = ++m_lastWatch;
      if (process && AddToEpoll(m_epoll.Get(), process.Get(), watch)) {
        m_watched.emplace(watch, Watched{pid, std::move(process)});
        return;
      }
      if (gone) m_gone.push_back(pid);
      if (!gone) m_others.push_back(pid);
    } else {
      m_others.push_back(pid);
    }
  }
  Wake();
}

void LateEnds::Wake() {
  static_cast<void>(m_wake.Notify());  // it fails only for a descriptor that isn't one
}

// --- the thread ---

void LateEnds::Run() {
  ::prctl(PR_SET_NAME, kThreadName);
  auto nextLook = std::chrono::steady_clock::now();
  std::array<epoll_event, 64> events{};
  for (;;) {
    const int count = ::epoll_wait(m_epoll.Get(), events.data(), static_cast<int>(events.size()), TimeOut());
    bool woken = false;
    for (int i = 0; i < count; ++i) {
      const std::uint64_t watch = events[static_cast<std::size_t>(i)].data.u64;
      woken = woken || watch == kWakeUp;
      if (watch != kWakeUp) EndWatched(watch);
    }
    if (woken) static_cast<void>(m_wake.Reset());
    {
      const std::scoped_lock lock(m_mutex);
      if (m_stop) return;
    }
    EndGone();
    if (const auto now = std::chrono::steady_clock::now(); now >= nextLook) {
      LookAtTheOthers();
      nextLook = now + kGrace;
    }
    EndLost();
  }
}

// In milliseconds, for epoll_wait(2).
int LateEnds::TimeOut() {
  constexpr int kForever = -1;
  constexpr int kALook = std::chrono::milliseconds(kGrace).count();
  const bool lost = m_guard->HasLostEnds();
  const std::scoped_lock lock(m_mutex);
  return lost || !m_others.empty() ? kALook : kForever;
}

void LateEnds::EndWatched(std::uint64_t watch) {
  qor::PidType pid = 0;
  {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_watched.find(watch);
    if (found == m_watched.end()) return;
    pid = found->second.pid;
    m_watched.erase(found);
  }
  End(pid);
}

void LateEnds::EndGone() {
  std::vector<qor::PidType> gone;
  {
    const std::scoped_lock lock(m_mutex);
    gone.swap(m_gone);
  }
  for (const qor::PidType pid : gone) End(pid);
}

void LateEnds::LookAtTheOthers() {
  std::vector<qor::PidType> others;
  {
    const std::scoped_lock lock(m_mutex);
    others.swap(m_others);
  }
  const auto running =
      std::partition(others.begin(), others.end(), [](qor::PidType pid) { return !HasRunningThread(pid); });
  {
    const std::scoped_lock lock(m_mutex);
    m_others.insert(m_others.end(), running, others.end());
  }
  others.erase(running, others.end());
  for (const qor::PidType pid : others) End(pid);
}

void LateEnds::End(qor::PidType pid) {
  if (std::optional<LateEnd> end = m_guard->EndLate(pid, MonotonicNow())) m_onEnd(std::move(*end));
}

void LateEnds::EndLost() {
  constexpr std::uint64_t kGraceTime = std::chrono::nanoseconds(kGrace).count();
  const std::uint64_t now = MonotonicNow();
  for (LateEnd& end : m_guard->TakeLostEnds(now > kGraceTime ? now - kGraceTime : 1)) m_onEnd(std::move(end));
}

}  // namespace host_kit
