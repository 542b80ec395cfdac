// A walk over the modules of a process.
#pragma once

#include "process_manager/proc_parser.h"
#include "process_manager/process_modules.h"
#include "process_manager/types.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// Reads the mappings once, when it is made. Has no lock: one caller at a time.
class ProcessModuleEnumerator
    : public zym::object::Ifaces<system_interceptors::process_manager::IProcessModuleEnumerator>,
      public zym::ServiceProvider<zym::IServiceLocator, zym::IAllocator, zym::ITracer>,
      public zym::NonCopyable {
 public:
  // Throws zym::CheckResultFailedException when the mappings can't be read.
  ProcessModuleEnumerator(zym::IServiceLocator* locator, PidType pid);

  zym::result_t Next(system_interceptors::process_manager::IProcessModule** module) override;
  zym::result_t Reset() override;

 private:
  procfs::Maps m_maps;
  procfs::Maps::const_iterator m_cursor;
};

}  // namespace qor::process_manager
