// What this process has at the moment: its threads, its open descriptors, its memory.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace test_support {

// Whether a thread of this process has begun to end, or is gone. One that was joined is still listed in /proc
// for a moment, but has PF_EXITING (0x4, the kernel's sched.h) among its flags from before the join is let
// go: the seventh field behind the name in proc(5)'s stat.
inline bool IsEnding(const std::filesystem::path& task) {
  std::string stat;
  std::ifstream file(task / "stat");
  std::getline(file, stat);
  std::istringstream fields(stat.substr(stat.rfind(')') + 1));
  std::string skipped;
  unsigned flags = 0;
  for (int i = 0; i < 6; ++i) fields >> skipped;
  return !(fields >> flags) || (flags & 0x4U) != 0;
}

// The threads of this process by name.
inline std::vector<pid_t> ThreadsNamed(std::string_view name) {
  std::vector<pid_t> threads;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::ifstream file(entry.path() / "comm");
    std::getline(file, comm);
    if (comm == name && !IsEnding(entry.path())) threads.push_back(std::stoi(entry.path().filename()));
  }
  return threads;
}

inline std::size_t RunningThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(
      std::count_if(begin(tasks), end(tasks), [](const auto& entry) { return !IsEnding(entry.path()); }));
}

inline std::size_t ThreadCount() {
#if defined(__SANITIZE_THREAD__)
  // The sanitizer's own thread comes with the first one: here it is always there.
  static const bool there = (std::thread([] {}).join(), true);
  static_cast<void>(there);
#endif
  return RunningThreads();
}

// Whether code may be run in a fork of this process: with threads, a fork may do no more than the
// async-signal-safe calls (fork(2)). The thread sanitizer has one thread of its own, and knows forks.
inline bool MayRunCodeInAFork() {
#if defined(__SANITIZE_THREAD__)
  return RunningThreads() <= 2;
#else
  return RunningThreads() == 1;
#endif
}

// The open descriptors of this process with what they name, but for the one by which they are listed.
inline std::map<int, std::string> OpenDescriptors() {
  std::map<int, std::string> descriptors;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink(entry.path(), error);
    const bool isTheList = target.native().starts_with("/proc/") && target.filename() == "fd";
    if (!error && !isTheList) descriptors.emplace(std::stoi(entry.path().filename()), target);
  }
  return descriptors;
}

// Resident memory in bytes (the second field of proc(5)'s statm).
inline std::size_t ResidentBytes() {
  std::size_t total = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace test_support
