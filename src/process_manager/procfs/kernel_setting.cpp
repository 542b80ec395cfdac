#include "process_manager/procfs/kernel_setting.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "process_manager/procfs/proc_file.h"
#include "process_manager/procfs/proc_path.h"
#include "qor_common/unique_fd.h"
#include "zym/trace.h"

namespace qor::procfs {
namespace {

// False: it can't be opened. The kernel takes the text of a setting in one write, proc(5); one that it
// refuses stays as it is, and the read that follows shows that.
bool Write(const NativePath& path, std::string_view text) noexcept {
  const UniqueFd file(::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (!file) return false;
  [[maybe_unused]] const ssize_t written = ::write(file.Get(), text.data(), text.size());
  return true;
}

}  // namespace

ScopedKernelSetting::ScopedKernelSetting(NativePath path, std::string_view value) : m_path(std::move(path)) {
  ProcFile file;
  ZYM_CHECK_OR_THROW(file.Read(m_path.c_str()) == ReadResult::kDone, "Cannot read " << m_path);
  m_old.assign(file.Text());
  ZYM_CHECK_OR_THROW(Write(m_path, value), "Cannot open for writing " << m_path);
}

ScopedKernelSetting::~ScopedKernelSetting() {
  // Nobody is left who could act on a failure, and there is nothing else to try.
  static_cast<void>(Write(m_path, m_old));
}

ScopedKernelAddresses::ScopedKernelAddresses(const NativePath& procRoot)
    : m_kptrRestrict(JoinPath(procRoot, "sys/kernel/kptr_restrict"), "0"),
      m_perfEventParanoid(JoinPath(procRoot, "sys/kernel/perf_event_paranoid"), "1") {}

}  // namespace qor::procfs
