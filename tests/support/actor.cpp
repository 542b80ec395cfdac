#include "support/actor.h"

#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace test_support {
namespace {

void Check(int error, const char* what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

pid_t SpawnWith(const std::string& path, std::vector<std::string> arguments,
                const posix_spawn_file_actions_t* actions) {
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  Check(::posix_spawn(&pid, path.c_str(), actions, nullptr, argv.data(), environ), path.c_str());
  return pid;
}

class FileActions {
 public:
  FileActions() { Check(::posix_spawn_file_actions_init(&m_actions), "posix_spawn_file_actions_init"); }
  ~FileActions() { ::posix_spawn_file_actions_destroy(&m_actions); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;

  void Duplicate(int from, int to) {
    Check(::posix_spawn_file_actions_adddup2(&m_actions, from, to), "posix_spawn_file_actions_adddup2");
  }
  const posix_spawn_file_actions_t* Get() const { return &m_actions; }

 private:
  posix_spawn_file_actions_t m_actions;
};

// A socket, since a write to a pipe that nobody reads any more would end the test with a signal.
struct Connection {
  Connection() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
      throw std::system_error(errno, std::generic_category(), "socketpair");
    own.Reset(ends[0]);
    childs.Reset(ends[1]);
  }
  qor::UniqueFd own;
  qor::UniqueFd childs;
};

}  // namespace

pid_t Spawn(const std::string& path, std::vector<std::string> arguments) {
  return SpawnWith(path, std::move(arguments), nullptr);
}

int Reap(pid_t pid) {
  int status = 0;
  pid_t reaped = -1;
  do {
    reaped = ::waitpid(pid, &status, 0);
  } while (reaped < 0 && errno == EINTR);
  if (reaped != pid) throw std::system_error(errno, std::generic_category(), "waitpid");
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

pid_t RunToEnd(const std::string& path, std::vector<std::string> arguments) {
  const pid_t pid = Spawn(path, std::move(arguments));
  if (const int status = Reap(pid); status != 0)
    throw std::runtime_error(path + " ended with " + std::to_string(status));
  return pid;
}

char StateOf(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(stat, text);
  const std::size_t comm = text.rfind(')');
  return comm != std::string::npos && comm + 2 < text.size() ? text[comm + 2] : '\0';
}

Actor::Actor(std::vector<std::string> steps) {
  Connection connection;
  FileActions actions;
  actions.Duplicate(connection.childs.Get(), STDIN_FILENO);
  actions.Duplicate(connection.childs.Get(), STDOUT_FILENO);
  steps.insert(steps.begin(), "actor");
  m_pid = SpawnWith(Path(), std::move(steps), actions.Get());
  m_connection = std::move(connection.own);
}

Actor::~Actor() {
  if (m_reaped) return;
  ::kill(m_pid, SIGKILL);
  ::waitpid(m_pid, nullptr, 0);
}

pid_t Actor::HearPid() {
  const pid_t pid = TryHearPid();
  if (pid == 0) throw std::runtime_error("the actor ended before it said anything");
  return pid;
}

pid_t Actor::TryHearPid() {
  std::string line;
  for (char byte = 0;;) {
    const ssize_t count = ::read(m_connection.Get(), &byte, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return 0;
    if (byte == '\n') return std::stoi(line);
    line += byte;
  }
}

void Actor::GoOn() const {
  if (::send(m_connection.Get(), "!", 1, MSG_NOSIGNAL) != 1)
    throw std::system_error(errno, std::generic_category(), "write to the actor");
}

int Actor::Wait() {
  m_reaped = true;
  return Reap(m_pid);
}

std::string Actor::Path() {
  return ACTOR_PROGRAM;
}

}  // namespace test_support
