// The control of one process.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>

#include "process_manager/proc_parser.h"
#include "process_manager/process_control.h"
#include "process_manager/process_information.h"
#include "process_manager/types.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// What a control takes from the machine; a test puts its own in. The functions are those of the system, with
// its results and its errno.
struct ProcessControlSurroundings {
  PidType modulePid;  // the process that loaded the module
  std::function<int(const char* path)> exists;
  std::function<int(const std::timespec* request, std::timespec* left)> sleep;
  std::function<int(pid_t pid, int signo)> kill;

  // The real ones.
  static ProcessControlSurroundings Real();
};

// The attribute flags are atomic; all else is fixed after construction. Only TerminateAndWait blocks.
//
// The process is invisible to the module's interception from the start if it is the host, a child of the
// host, or one that the application's settings exclude. Nothing else in the module makes it so.
class ProcessControl : public zym::object::Ifaces<system_interceptors::process_manager::IProcessControl,
                                                  system_interceptors::process_manager::IProcessAttributes>,
                       public zym::ServiceProvider<zym::IServiceLocator, zym::ITracer>,
                       public zym::NonCopyable {
 public:
  // Throws with the code of what failed: to make the process's information object, or to ask the settings.
  ProcessControl(zym::IServiceLocator* locator, PidType pid,
                 ProcessControlSurroundings surroundings = ProcessControlSurroundings::Real());
  ProcessControl(zym::IServiceLocator* locator, const UniquePidType& uniquePid,
                 ProcessControlSurroundings surroundings = ProcessControlSurroundings::Real());

  zym::result_t GetInformation(
      system_interceptors::process_manager::IProcessInformation** information) override;
  zym::result_t GetExitTime(zym::datetime_t& time) override;
  zym::result_t GetTimes(system_interceptors::process_manager::ProcessTimes& times) override;
  zym::result_t GetIoCounters(system_interceptors::process_manager::ProcessIoCounters& counters) override;
  zym::result_t GetVmCounters(system_interceptors::process_manager::ProcessVmCounters& counters) override;
  zym::result_t IsSystemCriticalProcess(bool& critical) override;
  zym::result_t Terminate() override;
  zym::result_t TerminateAndWait(unsigned timeout) override;

  zym::result_t GetAttributeFlags(std::uint32_t& flags) override;
  zym::result_t UpdateAttributeFlags(std::uint32_t add, std::uint32_t remove) override;

 private:
  template <class Key>
  struct By {
    const Key& key;
  };
  template <class Key>
  ProcessControl(zym::IServiceLocator* locator, By<Key> by, ProcessControlSurroundings surroundings);

  [[nodiscard]] bool IsExcludedBySettings(const NativePath& imagePath) const;
  zym::result_t Kill(int signo);
  [[nodiscard]] bool WaitForExit(unsigned timeout) const;
  void SleepOneStep() const;

  const ProcessControlSurroundings m_surroundings;
  zym::intrusive_ptr<system_interceptors::process_manager::IProcessInformation> m_information;
  PidType m_pid = 0;
  std::atomic<std::uint32_t> m_attributeFlags{0};
};

}  // namespace qor::process_manager
