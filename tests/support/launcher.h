// The product's launcher, played by a script.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>

#include "qor_common/unique_fd.h"

namespace test_support {

// What the launcher was like when it ran.
struct LauncherRun {
  std::string arguments;  // its name, their number, themselves
  pid_t pid = 0;
  pid_t group = 0;
  pid_t session = 0;
  std::map<int, std::string> descriptors;  // with what they name; not the one for the script itself
};

// Lies at the launcher's place while it lives. To be made with mounts of its own: it covers /opt.
class StandInLauncher {
 public:
  StandInLauncher();
  // Lets a launcher that runs end.
  ~StandInLauncher();
  StandInLauncher(const StandInLauncher&) = delete;
  StandInLauncher& operator=(const StandInLauncher&) = delete;

  // Waits until the launcher runs; it goes on running. Throws when it doesn't.
  LauncherRun WaitForRun();

  static constexpr const char* kPath = "/opt/quelmarin/vorn/libexec/launcher";

 private:
  void LetEnd() const;

  qor::UniqueFd m_facts;
  bool m_runs = false;
};

}  // namespace test_support
