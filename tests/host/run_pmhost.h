// pmhost as a child of the test.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <rapidjson/document.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qor_common/unique_fd.h"
#include "support/rights.h"
#include "support/temp_directory.h"

#define PMHOST_NEEDS_ROOT() SKIP_IF(test_support::MissingProcConnector())

namespace host_tests {

// A member that is text; "" for null. (The operators of the JSON library call themselves when compiled as
// C++20.)
inline std::string TextOf(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value& value = object[name];
  return value.IsString() ? std::string(value.GetString(), value.GetStringLength()) : std::string();
}

// A copy of pmhost beside one of its module, for other users: the build tree may be closed to them.
inline const std::string& PmhostForEverybody() {
  static const test_support::TempDirectory directory;
  static const std::string copy = [] {
    namespace fs = std::filesystem;
    const fs::path original = PMHOST_BINARY;
    fs::permissions(directory.Path(), fs::perms(0755));
    for (const fs::path& file : {original, original.parent_path() / "libprocess_manager.so"})
      fs::copy_file(file, fs::path(directory.Path()) / file.filename());
    return (fs::path(directory.Path()) / original.filename()).string();
  }();
  return copy;
}

// Started at construction; ended, at the latest, at destruction.
class Pmhost {
 public:
  // `prepare` runs in the child, before pmhost does; it may become another user.
  explicit Pmhost(std::vector<std::string> arguments, const std::function<void()>& prepare = {}) {
    int out[2];
    int err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    m_out.Reset(out[0]);
    m_err.Reset(err[0]);
    arguments.insert(arguments.begin(), "pmhost");
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    const char* const program = prepare ? PmhostForEverybody().c_str() : PMHOST_BINARY;
    m_pid = ::fork();
    if (m_pid == 0) {
      ::dup2(out[1], STDOUT_FILENO);
      ::dup2(err[1], STDERR_FILENO);
      if (prepare) prepare();
      ::execv(program, pointers.data());
      ::_exit(127);
    }
    m_startedAs = m_pid;
    ::close(out[1]);
    ::close(err[1]);
  }
  ~Pmhost() {
    if (m_pid <= 0) return;
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
  }
  Pmhost(const Pmhost&) = delete;
  Pmhost& operator=(const Pmhost&) = delete;

  [[nodiscard]] pid_t Pid() const { return m_pid; }
  // The same, when it has ended too.
  [[nodiscard]] pid_t StartedAs() const { return m_startedAs; }
  void Kill(int signal) const { ::kill(m_pid, signal); }
  void CloseOutput() { m_out.Reset(); }

  // The next line of standard output; empty at its end. Throws when none comes.
  std::string ReadLine() {
    for (;;) {
      if (const std::size_t end = m_pending.find('\n', m_begin); end != std::string::npos) {
        std::string line = m_pending.substr(m_begin, end - m_begin);
        m_begin = end + 1;
        if (m_begin > (1U << 20)) m_pending.erase(0, std::exchange(m_begin, 0));
        return line;
      }
      if (!ReadMore()) return {};
    }
  }

  // Reads lines until one fits; false at the end of the output, or when none has come for long.
  bool ReadUntil(const std::function<bool(const rapidjson::Document&)>& fits) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(kDeadline);
    for (std::string line = ReadLine(); !line.empty(); line = ReadLine()) {
      if (fits(Parse(line))) return true;
      if (std::chrono::steady_clock::now() > end) return false;
    }
    return false;
  }
  // Reads all lines that are left.
  void ReadAll(const std::function<void(const rapidjson::Document&)>& read) {
    for (std::string line = ReadLine(); !line.empty(); line = ReadLine()) read(Parse(line));
  }

  // Waits for the end, and takes what is written until then; the exit status, or 128 and the signal.
  int Wait() {
    while (ReadMore(false)) {
    }
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  // All that is left of standard error, and of standard output.
  std::string Errors() {
    while (ReadMore(false)) {
    }
    return std::exchange(m_errors, {});
  }
  std::string Output() {
    while (ReadMore(false)) {
    }
    return std::exchange(m_pending, {}).substr(std::exchange(m_begin, 0));
  }

 private:
  static constexpr int kDeadline = 30;  // seconds

  // Takes what comes on either stream, for whoever writes to one that nobody reads stands still. False: the
  // output has ended, and, unless that alone is asked for, the errors too. Throws when nothing comes.
  bool ReadMore(bool outputOnly = true) {
    while (m_out || (m_err && !outputOnly)) {
      pollfd readable[] = {{.fd = m_out.Get(), .events = POLLIN, .revents = 0},
                           {.fd = m_err.Get(), .events = POLLIN, .revents = 0}};
      if (::poll(readable, 2, kDeadline * 1000) == 0) throw std::runtime_error("pmhost is silent");
      if (readable[1].revents != 0) Take(m_err, m_errors);
      if (readable[0].revents != 0 && Take(m_out, m_pending)) return true;
    }
    return false;
  }

  // False: the stream has ended.
  static bool Take(qor::UniqueFd& stream, std::string& text) {
    char buffer[65536];
    const ssize_t count = ::read(stream.Get(), buffer, sizeof(buffer));
    if (count <= 0) {
      stream.Reset();
      return false;
    }
    text.append(buffer, static_cast<std::size_t>(count));
    return true;
  }

  static rapidjson::Document Parse(const std::string& line) {
    rapidjson::Document event;
    if (event.Parse(line.c_str()).HasParseError()) throw std::runtime_error("not JSON: " + line);
    return event;
  }

  pid_t m_pid = 0;
  pid_t m_startedAs = 0;
  qor::UniqueFd m_out;
  qor::UniqueFd m_err;
  std::string m_pending;
  std::size_t m_begin = 0;
  std::string m_errors;
};

// Runs the command to its end.
struct Finished {
  explicit Finished(std::vector<std::string> arguments, const std::function<void()>& prepare = {})
      : pmhost(std::move(arguments), prepare),
        output(pmhost.Output()),
        errors(pmhost.Errors()),
        status(pmhost.Wait()) {}

  Pmhost pmhost;
  std::string output;
  std::string errors;
  int status;
};

// For the child: an ordinary user from now on.
inline void BecomeNobody() {
  if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
      ::setresuid(65534, 65534, 65534) != 0)
    ::_exit(126);
}

}  // namespace host_tests
