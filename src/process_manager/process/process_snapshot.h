// A list of all processes, made once, that a client walks.
#pragma once

#include <cstddef>
#include <vector>

#include "process_manager/process_manager.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// The objects are made at construction, with everything that can be read of each process; so a snapshot fills
// the cache, too. Only the cursor changes later, without a lock: one client at a time.
class ProcessSnapshot
    : public zym::object::Ifaces<system_interceptors::process_manager::IProcessInformationEnumerator>,
      public zym::InterfaceProvider<zym::ITracer>,
      public zym::NonCopyable {
 public:
  // A process that can't be read is left out. Throws when the reader of /proc is missing, or can't list the
  // processes.
  explicit ProcessSnapshot(zym::IServiceLocator* locator);
  ~ProcessSnapshot();

  zym::result_t Next(system_interceptors::process_manager::IProcessInformation** information) override;
  zym::result_t Reset() override;

 private:
  std::vector<zym::intrusive_ptr<system_interceptors::process_manager::IProcessInformation>> m_processes;
  std::size_t m_next = 0;
};

}  // namespace qor::process_manager
