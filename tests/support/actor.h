// Child processes that do something: run by a program of their own, never by a fork of the test.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "qor_common/unique_fd.h"

namespace test_support {

// Runs a program until its end. May be used by a process with threads.
pid_t Spawn(const std::string& path, std::vector<std::string> arguments);
// Waits for the end: the exit status, or 128 and the signal.
int Reap(pid_t pid);
// Both: the pid of a process that is gone.
pid_t RunToEnd(const std::string& path, std::vector<std::string> arguments);
// The simplest process there is.
inline pid_t RunTrue() {
  return RunToEnd("/bin/true", {"true"});
}

// The letter of a process's state, proc(5): 'S' sleeps, 'Z' is a zombie. 0: there is no such process.
char StateOf(pid_t pid);

// A process that runs the steps of tests/programs/actor.cpp; `actor --help` lists them. Its input and its
// output belong to the object. It is killed and reaped with the object, when nobody has reaped it before.
class Actor {
 public:
  explicit Actor(std::vector<std::string> steps);
  ~Actor();
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;

  [[nodiscard]] pid_t Pid() const { return m_pid; }
  // The pid that the next step "say" prints: of the process that has come there. Throws when the output ends.
  pid_t HearPid();
  // The same; 0 when the output ends.
  pid_t TryHearPid();
  // Lets the next step "wait" end.
  void GoOn() const;
  // Waits for the end; the exit status, or 128 and the signal.
  int Wait();

  // The program's own path, for a step "exec": the new image can run steps too.
  static std::string Path();

 private:
  qor::UniqueFd m_connection;
  pid_t m_pid = -1;
  bool m_reaped = false;
};

}  // namespace test_support
