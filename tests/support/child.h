// Processes to look at. Each is killed and reaped when its owner goes.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qor_common/unique_fd.h"
#include "support/own_process.h"
#include "support/threads.h"

namespace test_support {

class Child {
 public:
  // Runs `prepare` in a fork of this program, waits until it is done, and lets the child sleep from then on.
  // A `prepare` that gives false, or never returns, is a failure of the test.
  template <class Prepare>
  static Child Forked(Prepare prepare) {
    if (!Eventually(&MayRunCodeInAFork)) throw std::logic_error("this process has threads: use an Actor");
    Pipe ready;
    Child child(::fork());
    if (child.m_pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      const bool prepared = prepare();
      if (!prepared || ::write(ready.write.Get(), "!", 1) != 1) ::_exit(1);
      for (;;) ::pause();
    }
    ready.write.Reset();
    child.WaitForByte(ready.read.Get());
    return child;
  }
  static Child Forked() {
    return Forked([] { return true; });
  }

  // Runs the shell `shell` (the system's, or a copy of it) with more arguments behind its own, and waits
  // until it runs. Its arguments are as ShellArguments tells.
  static Child Shell(const std::string& shell, const std::vector<std::string>& arguments = {}) {
    Pipe output;
    Pipe input;
    std::vector<std::string> all = ShellArguments(shell);
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : all) argv.push_back(argument.data());
    argv.push_back(nullptr);
    Child child(::fork());
    if (child.m_pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::dup2(input.read.Get(), STDIN_FILENO);
      ::dup2(output.write.Get(), STDOUT_FILENO);
      ::execv(shell.c_str(), argv.data());
      ::_exit(1);
    }
    output.write.Reset();
    child.WaitForByte(output.read.Get());
    child.m_input = std::move(input.write);
    return child;
  }
  // The first arguments of a shell: it says that it runs, and waits for its end.
  static std::vector<std::string> ShellArguments(const std::string& shell) {
    return {shell, "-c", "echo; read line", "shell"};
  }

  ~Child() { End(); }
  Child(Child&& other) noexcept : m_pid(std::exchange(other.m_pid, -1)), m_input(std::move(other.m_input)) {}
  Child& operator=(Child&&) = delete;

  [[nodiscard]] std::uint32_t Pid() const { return static_cast<std::uint32_t>(m_pid); }

  // Ends the child and leaves it a zombie.
  void Kill() const {
    ::kill(m_pid, SIGKILL);
    siginfo_t info;
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT), 0);
  }

  // Ends the child for good; its pid is nobody's then.
  void End() {
    if (m_pid <= 0) return;
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }

 private:
  struct Pipe {
    Pipe() {
      int ends[2];
      if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
      read.Reset(ends[0]);
      write.Reset(ends[1]);
    }
    qor::UniqueFd read;
    qor::UniqueFd write;
  };

  explicit Child(pid_t pid) : m_pid(pid) {
    if (pid < 0) throw std::runtime_error("cannot fork");
  }

  void WaitForByte(int fd) const {
    pollfd readable{.fd = fd, .events = POLLIN, .revents = 0};
    const auto deadline = std::chrono::duration_cast<std::chrono::milliseconds>(kDeadline);
    char byte = 0;
    if (::poll(&readable, 1, static_cast<int>(deadline.count())) != 1 || ::read(fd, &byte, 1) != 1)
      ADD_FAILURE() << "the child didn't begin";
  }

  pid_t m_pid;
  qor::UniqueFd m_input;  // the child waits for its end
};

}  // namespace test_support
