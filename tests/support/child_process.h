// Things that a test does to a whole process, done to a child of its own.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "qor_common/unique_fd.h"
#include "support/files.h"
#include "support/own_process.h"

namespace test_support {

// Runs `body` in a forked child and gives the text that it returned, or how the child ended without one. A
// body says what went wrong, and nothing when all was well: EXPECT_EQ(RunInChild(...), "").
std::string RunInChild(const std::function<std::string()>& body);

// In a child: a mount namespace of its own, whose changes nobody else sees. "" or what is missing.
std::string EnterPrivateMounts();
// In a child behind EnterPrivateMounts: an empty file system in memory over `directory`.
std::string MountEmpty(const char* directory);

// In a child: the system call `number` does nothing and gives `error` (0: success) from now on, for this
// process and all it starts; with `argument`, only when the argument of that index has that value.
struct Argument {
  unsigned index;
  std::uint32_t value;
};
std::string FailSystemCall(long number, int error, std::optional<Argument> argument = std::nullopt);

// Reads until the end; waits for it at most half a minute.
std::string ReadToEnd(int fd);
// What is there, waiting for it at most half a minute. Throws at the end.
std::string ReadSome(int fd);

// A child that lives in a mount namespace of its own, in which an empty file system in memory lies over
// `directory`. Throws std::runtime_error when it can't be had.
class ForeignNamespace {
 public:
  explicit ForeignNamespace(const std::string& directory);
  ~ForeignNamespace();
  ForeignNamespace(const ForeignNamespace&) = delete;
  ForeignNamespace& operator=(const ForeignNamespace&) = delete;

  [[nodiscard]] pid_t Pid() const { return m_pid; }
  [[nodiscard]] std::uint64_t Id() const;
  // The same file, through the child's root.
  [[nodiscard]] std::string Seen(const std::string& path) const;
  // A descriptor for setns(2).
  [[nodiscard]] qor::UniqueFd Open() const;

 private:
  pid_t m_pid;
  qor::UniqueFd m_lifeline;  // the child ends when this closes
};

}  // namespace test_support
