// Kernel settings that are changed for a moment.
#pragma once

#include <string>
#include <string_view>

#include "process_manager/types.h"
#include "zym/tracer.h"

namespace qor::procfs {

// Holds a new value in a settings file and puts the old text back at its end, ignoring all errors then.
// Throws zym::CheckFailedException when the file can't be read or written. The setting is the whole system's:
// keep the stretch short.
class ScopedKernelSetting {
 public:
  ScopedKernelSetting(NativePath path, std::string_view value);
  ~ScopedKernelSetting();
  ScopedKernelSetting(const ScopedKernelSetting&) = delete;
  ScopedKernelSetting& operator=(const ScopedKernelSetting&) = delete;

 private:
  NativePath m_path;
  std::string m_old;
};

// Makes the kernel show its addresses: kptr_restrict 0, perf_event_paranoid 1, restored in reverse order. Two
// at once may leave a raised value behind; nothing protects against that.
class ScopedKernelAddresses {
 public:
  // `prefix` stands before the trace of what is tried.
  ScopedKernelAddresses(zym::ITracer* tracer, const NativePath& procRoot, std::string_view prefix);

 private:
  ScopedKernelSetting m_kptrRestrict;
  ScopedKernelSetting m_perfEventParanoid;
};

}  // namespace qor::procfs
