// What this process has at the moment: its threads, its open descriptors, its memory.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace test_support {

// The threads of this process by name.
inline std::vector<pid_t> ThreadsNamed(std::string_view name) {
  std::vector<pid_t> threads;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::ifstream file(entry.path() / "comm");
    std::getline(file, comm);
    if (comm == name) threads.push_back(std::stoi(entry.path().filename()));
  }
  return threads;
}

// The threads that /proc lists: one that was joined is still there for a moment.
inline std::size_t ListedThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

inline std::size_t ThreadCount() {
#if defined(__SANITIZE_THREAD__)
  // The sanitizer's own thread comes with the first one: here it is always there.
  static const bool there = (std::thread([] {}).join(), true);
  static_cast<void>(there);
#endif
  return ListedThreads();
}

// Whether code may be run in a fork of this process: with threads, a fork may do no more than the
// async-signal-safe calls (fork(2)). The thread sanitizer has one thread of its own, and knows forks.
inline bool MayRunCodeInAFork() {
#if defined(__SANITIZE_THREAD__)
  return ListedThreads() <= 2;
#else
  return ListedThreads() == 1;
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
