// Processes as objects.
#pragma once

#include "process_manager/process_records.h"
#include "process_manager/types.h"
#include "zym/iobject.h"

namespace system_interceptors::process_manager {

// What was known of one process when the object was made. It never reads anything again. Any thread.
struct IProcessInformation : zym::IObject {
  static constexpr zym::iid_t kIid = zym::IidOf("system_interceptors::process_manager::IProcessInformation");

  virtual zym::result_t GetInformation(ProcessInformation& info) = 0;

 protected:
  ~IProcessInformation() = default;
};

struct IProcessInformationEnumerator;

// Acts on one process. Any thread.
struct IProcessControl : zym::IObject {
  static constexpr zym::iid_t kIid = zym::IidOf("system_interceptors::process_manager::IProcessControl");

  // What was known of the process when the object was made.
  virtual zym::result_t GetInformation(IProcessInformation** information) = 0;

 protected:
  ~IProcessControl() = default;
};

// Any thread.
struct IProcessManager : zym::IObject {
  static constexpr zym::iid_t kIid = 0x476789db;

  virtual zym::result_t Enumerate(IProcessInformationEnumerator** enumerator) = 0;
  virtual zym::result_t GetInformation(qor::PidType pid, IProcessInformation** information) = 0;
  virtual zym::result_t GetInformationByUniqueId(const qor::UniquePidType& id,
                                                 IProcessInformation** information) = 0;
  virtual zym::result_t GetControl(qor::PidType pid, IProcessControl** control) = 0;
  virtual zym::result_t GetControlByUniqueId(const qor::UniquePidType& id, IProcessControl** control) = 0;

 protected:
  ~IProcessManager() = default;
};

}  // namespace system_interceptors::process_manager
