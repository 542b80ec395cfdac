#include "support/launcher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "support/child_process.h"

namespace test_support {
namespace {

constexpr const char* kFacts = "/opt/facts";
constexpr const char* kLatch = "/opt/latch";

// The facts are told by a child, so that nothing is changed about what they tell.
constexpr const char* kScript =
    "#!/bin/sh\n"
    "(\n"
    "  echo \"$0 $#: $*\"\n"
    "  echo $$ $(cut -d' ' -f5,6 /proc/$$/stat)\n"
    "  for fd in /proc/$$/fd/*; do echo ${fd##*/} $(readlink $fd); done\n"
    "  echo end\n"
    ") >/opt/facts\n"
    "read line </opt/latch\n";

void MakePipe(const char* path) {
  if (::mkfifo(path, 0600) != 0) throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

StandInLauncher::StandInLauncher() {
  if (const std::string failure = MountEmpty("/opt"); !failure.empty()) throw std::runtime_error(failure);
  std::filesystem::create_directories(std::filesystem::path(kPath).parent_path());
  WriteTextFile(kPath, kScript, 0755);
  MakePipe(kFacts);
  MakePipe(kLatch);
  m_facts.Reset(::open(kFacts, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!m_facts) throw std::system_error(errno, std::generic_category(), kFacts);
}

StandInLauncher::~StandInLauncher() {
  if (m_runs) LetEnd();
}

LauncherRun StandInLauncher::WaitForRun() {
  std::string text;
  while (!text.ends_with("end\n")) text += ReadSome(m_facts.Get());
  m_runs = true;
  LauncherRun run;
  std::istringstream lines(text);
  std::getline(lines, run.arguments);
  lines >> run.pid >> run.group >> run.session;
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line) && line != "end") {
    const std::size_t blank = line.find(' ');
    const std::string target = line.substr(blank + 1);
    if (target != kPath) run.descriptors.emplace(std::stoi(line), target);
  }
  return run;
}

void StandInLauncher::LetEnd() const {
  // It opens the other end, if it hasn't yet.
  const qor::UniqueFd latch(::open(kLatch, O_WRONLY | O_CLOEXEC));
  if (::write(latch.Get(), "\n", 1) != 1) ::perror("launcher: latch");
}

}  // namespace test_support
