// The ends of processes that no report of the kernel names, found out by watching the processes.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "host_kit/process_guard.h"
#include "qor_common/descriptor_notifier.h"
#include "qor_common/unique_fd.h"

namespace host_kit {

// Watches for the guard: the processes that outlived their first thread, by a pidfd each, and the ends that
// were lost. Owns the thread "vornKitEnds", which sleeps while there is nothing to watch.
//
// Any user can start processes that outlive their first thread. So no more than kMostDescriptors pidfds are
// open at once; the processes beyond them are looked at once a second, and their end may be late by that.
class LateEnds {
 public:
  // Called on the thread, for one end after the other.
  using OnEnd = std::function<void(LateEnd&& end)>;

  static constexpr std::size_t kMostDescriptors = 256;
  // For so long a lost end waits for its report. The kernel sends it when the process may be gone already; it
  // is handled when the source's thread has come to it.
  static constexpr std::chrono::seconds kGrace{1};

  // The guard has one watcher at a time. Throws Failure when the thread, or a descriptor that it needs, can't
  // be made.
  LateEnds(zym::intrusive_ptr<ProcessGuard> guard, OnEnd onEnd);
  // When it returns, the function isn't running and won't be called again. Not on the thread itself.
  ~LateEnds();
  LateEnds(const LateEnds&) = delete;
  LateEnds& operator=(const LateEnds&) = delete;

 private:
  struct Watched {
    qor::PidType pid;
    qor::UniqueFd process;
  };

  void Watch(qor::PidType pid);
  void Wake();
  void Run();
  [[nodiscard]] int TimeOut();
  void EndWatched(std::uint64_t watch);
  void EndGone();
  void LookAtTheOthers();
  void End(qor::PidType pid);
  void EndLost();

  const zym::intrusive_ptr<ProcessGuard> m_guard;
  const OnEnd m_onEnd;
  qor::DescriptorNotifier m_wake;
  const qor::UniqueFd m_epoll;

  std::mutex m_mutex;  // guards all below, but for the thread
  bool m_stop = false;
  std::uint64_t m_lastWatch = 0;
  std::unordered_map<std::uint64_t, Watched> m_watched;  // by the number of the watch
  std::vector<qor::PidType> m_gone;                      // those that were gone when they should be watched
  std::vector<qor::PidType> m_others;                    // those without a descriptor
  std::thread m_thread;
};

}  // namespace host_kit
