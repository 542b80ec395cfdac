// Kernel settings that are changed for a moment.
#pragma once

#include <string>
#include <string_view>

#include "process_manager/types.h"

namespace qor::procfs {

// Holds a new value in a settings file and puts the old text back at its end, ignoring all errors then.
// Throws zym::CheckFailedException when the file can't be read, or can't be opened for writing. The setting
// is the whole system's: keep the stretch short.
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

// Makes the kernel show its addresses: kptr_restrict is 0 and perf_event_paranoid is 1, below "sys/kernel" of
// `procRoot`. They are restored in reverse order. Two at once may leave a raised value behind; nothing
// protects against that.
class ScopedKernelAddresses {
 public:
  explicit ScopedKernelAddresses(const NativePath& procRoot);

 private:
  ScopedKernelSetting m_kptrRestrict;
  ScopedKernelSetting m_perfEventParanoid;
};

}  // namespace qor::procfs
