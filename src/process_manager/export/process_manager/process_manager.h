// The manager that makes the objects of processes (class id class_ids::kProcessManager).
#pragma once

#include "process_manager/process_control.h"
#include "process_manager/process_information.h"
#include "process_manager/types.h"
#include "zym/iobject.h"

namespace system_interceptors::process_manager {

// A list of objects that was made once. One client at a time.
struct IProcessInformationEnumerator : zym::IObject {
  static constexpr zym::iid_t kIid =
      zym::IidOf("system_interceptors::process_manager::IProcessInformationEnumerator");

  // Returns the next object with one more reference. ZYM_FALSE: there are no more; `information` is left
  // alone.
  virtual zym::result_t Next(IProcessInformation** information) = 0;
  // Goes back to the first object.
  virtual zym::result_t Reset() = 0;

 protected:
  ~IProcessInformationEnumerator() = default;
};

// Any thread. Each object is returned with one reference, and lives on when the manager has been released. On
// failure the out-parameter is left alone.
//
// The locator must offer procfs::IParser and the process cache. A process of which the cache knows is not
// read again. A pid of 0 is the kernel. The id of a thread is taken as the kernel takes it: the object is
// that of the thread, under the thread's id.
//
// Result codes of the getters:
//   ZYM_E_NOT_FOUND         there is no such process, it has ended (even if its parent has not collected it
//   yet), or
//                           it can't be looked into for want of CAP_SYS_PTRACE: the kernel answers all three
//                           alike
//   ZYM_E_UNSPECIFIED       a file of the process in /proc can't be read or parsed
//   ZYM_E_INVALID_ARGUMENT  the pid is all ones
//   ZYM_E_OUT_OF_MEMORY
// and of a service that is missing, or that fails, its code: ZYM_E_NO_INTERFACE from most locators. Without
// IProcessInfoProvider each getter fails, and Enumerate succeeds with nothing, for it leaves out what fails.
struct IProcessManager : zym::IObject {
  static constexpr zym::iid_t kIid = 0x476789db;

  // All processes, with everything that can be read of each; the kernel comes last. Those that end in the
  // meantime, and those that can't be looked into, are left out.
  virtual zym::result_t Enumerate(IProcessInformationEnumerator** enumerator) = 0;
  virtual zym::result_t GetInformation(qor::PidType pid, IProcessInformation** information) = 0;
  // An image that the cache doesn't have any more is looked for by the pid that is in its id. Then the object
  // is that of the process which has the pid now, under that process's own unique pid.
  virtual zym::result_t GetInformationByUniqueId(const qor::UniquePidType& id,
                                                 IProcessInformation** information) = 0;
  // The control needs IAppSettingsProvider and IPathMatcherFactory too, unless the process is the host's own
  // or a child of it.
  virtual zym::result_t GetControl(qor::PidType pid, IProcessControl** control) = 0;
  virtual zym::result_t GetControlByUniqueId(const qor::UniquePidType& id, IProcessControl** control) = 0;

 protected:
  ~IProcessManager() = default;
};

}  // namespace system_interceptors::process_manager
