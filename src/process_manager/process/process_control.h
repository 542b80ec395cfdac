// The control of one process.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "process_manager/proc_parser.h"
#include "process_manager/process_control.h"
#include "process_manager/process_information.h"
#include "process_manager/types.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

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
  ProcessControl(zym::IServiceLocator* locator, PidType pid, PidType modulePid = ModulePid());
  ProcessControl(zym::IServiceLocator* locator, const UniquePidType& uniquePid,
                 PidType modulePid = ModulePid());

  // The process that loaded the module; a fork of it later on is another.
  static PidType ModulePid();

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

 protected:
  // What a control does to the machine, with the results and the errno of the system's functions; a test
  // derives and does something else.
  virtual int Access(const char* path) const;
  virtual int Sleep(const std::timespec* request, std::timespec* left) const;
  virtual int SendSignal(pid_t pid, int signo) const;

 private:
  template <class Key>
  struct By {
    const Key& key;
  };
  template <class Key>
  ProcessControl(zym::IServiceLocator* locator, By<Key> by, PidType modulePid);

  [[nodiscard]] bool IsExcludedBySettings(const NativePath& imagePath) const;
  zym::result_t Kill(int signo);
  [[nodiscard]] bool WaitForExit(unsigned timeout) const;
  void SleepOneStep() const;

  zym::intrusive_ptr<system_interceptors::process_manager::IProcessInformation> m_information;
  PidType m_pid = 0;
  std::atomic<std::uint32_t> m_attributeFlags{0};
};

}  // namespace qor::process_manager
