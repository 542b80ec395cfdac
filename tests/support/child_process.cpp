#include "support/child_process.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "support/own_process.h"
#include "support/threads.h"
#include "support/unshare_mounts.h"

namespace test_support {
namespace {

using qor::UniqueFd;

std::string LastError(const char* what) {
  const int error = errno;
  return std::string(what) + ": " + std::strerror(error);
}

void RequireNoThreads() {
  // A thread that was joined is still listed for a moment.
  if (!Eventually(&MayRunCodeInAFork)) throw std::logic_error("this process has threads: use an Actor");
}

std::string Run(const std::function<std::string()>& body) {
  try {
    return body();
  } catch (const std::exception& e) {
    return std::string("exception: ") + e.what();
  }
}

}  // namespace

std::string RunInChild(const std::function<std::string()>& body) {
  RequireNoThreads();
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
  const UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  const pid_t child = ::fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child == 0) {
    WriteAll(writeEnd.Get(), Run(body));
    ::_exit(0);
  }
  writeEnd.Reset();
  std::string text;
  char chunk[4096];
  for (ssize_t count = 0; (count = ::read(readEnd.Get(), chunk, sizeof(chunk))) != 0;) {
    if (count > 0) text.append(chunk, static_cast<std::size_t>(count));
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    text += " [child ended with status " + std::to_string(status) + "]";
  return text;
}

std::string EnterPrivateMounts() {
  const char* const failed = UnshareMounts();
  return failed == nullptr ? std::string() : LastError(failed);
}

std::string MountEmpty(const char* directory) {
  return ::mount("tmpfs", directory, "tmpfs", 0, nullptr) == 0 ? std::string() : LastError("mount(tmpfs)");
}

std::string FailSystemCall(long number, int error, std::optional<Argument> argument) {
  const auto failure = static_cast<std::uint32_t>(SECCOMP_RET_ERRNO | (error & SECCOMP_RET_DATA));
  std::vector<sock_filter> program = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number), 0,
               static_cast<std::uint8_t>(argument ? 3 : 1)),
  };
  if (argument) {
    // The low half of the argument: x86-64 is little-endian.
    program.push_back(
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS,
                 static_cast<std::uint32_t>(offsetof(seccomp_data, args) + 8 * argument->index)));
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, argument->value, 0, 1));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, failure));
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter{.len = static_cast<unsigned short>(program.size()), .filter = program.data()};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return LastError("prctl(PR_SET_NO_NEW_PRIVS)");
  if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) return LastError("prctl(PR_SET_SECCOMP)");
  return {};
}

namespace {

// Empty at the end.
std::string ReadNext(int fd) {
  char chunk[4096];
  for (;;) {
    pollfd ready{.fd = fd, .events = POLLIN, .revents = 0};
    if (::poll(&ready, 1, 30'000) == 0) throw std::runtime_error("nothing came within half a minute");
    const ssize_t count = ::read(fd, chunk, sizeof(chunk));
    if (count >= 0) return {chunk, static_cast<std::size_t>(count)};
    if (errno != EINTR && errno != EAGAIN) throw std::system_error(errno, std::generic_category(), "read");
  }
}

}  // namespace

std::string ReadToEnd(int fd) {
  std::string text;
  for (std::string next = ReadNext(fd); !next.empty(); next = ReadNext(fd)) text += next;
  return text;
}

std::string ReadSome(int fd) {
  std::string text = ReadNext(fd);
  if (text.empty()) throw std::runtime_error("the stream has ended");
  return text;
}

ForeignNamespace::ForeignNamespace(const std::string& directory) {
  RequireNoThreads();
  int ready[2];
  int lifeline[2];
  if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(lifeline, O_CLOEXEC) != 0)
    throw std::system_error(errno, std::generic_category(), "pipe2");
  const UniqueFd readyRead(ready[0]);
  UniqueFd readyWrite(ready[1]);
  const UniqueFd lifelineRead(lifeline[0]);
  m_lifeline.Reset(lifeline[1]);
  m_pid = ::fork();
  if (m_pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (m_pid == 0) {
    m_lifeline.Reset();
    std::string failure = EnterPrivateMounts();
    if (failure.empty()) failure = MountEmpty(directory.c_str());
    WriteAll(readyWrite.Get(), failure);
    readyWrite.Reset();
    char end = 0;
    while (::read(lifelineRead.Get(), &end, 1) < 0 && errno == EINTR) {
    }
    ::_exit(0);
  }
  readyWrite.Reset();
  if (const std::string failure = ReadToEnd(readyRead.Get()); !failure.empty()) {
    m_lifeline.Reset();
    ::waitpid(m_pid, nullptr, 0);
    throw std::runtime_error(failure);
  }
}

ForeignNamespace::~ForeignNamespace() {
  m_lifeline.Reset();
  ::waitpid(m_pid, nullptr, 0);
}

std::uint64_t ForeignNamespace::Id() const {
  struct stat status {};
  if (::stat(("/proc/" + std::to_string(m_pid) + "/ns/mnt").c_str(), &status) != 0)
    throw std::system_error(errno, std::generic_category(), "stat");
  return status.st_ino;
}

std::string ForeignNamespace::Seen(const std::string& path) const {
  return "/proc/" + std::to_string(m_pid) + "/root" + path;
}

qor::UniqueFd ForeignNamespace::Open() const {
  return UniqueFd(::open(("/proc/" + std::to_string(m_pid) + "/ns/mnt").c_str(), O_RDONLY | O_CLOEXEC));
}

}  // namespace test_support
