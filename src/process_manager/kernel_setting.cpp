#include "process_manager/kernel_setting.h"

#include <fstream>
#include <iterator>
#include <utility>

#include "process_manager/proc_path.h"
#include "zym/exception.h"
#include "zym/trace.h"

namespace qor::procfs {
namespace {

NativePath TraceAndJoin(zym::ITracer* tracer, std::string_view prefix, const NativePath& root,
                        const char* name) {
  ZYM_TRACE(tracer, zym::trace::kCall,
            prefix << "will try to read with kptr_restrict set to 0 and perf_event_paranoid set to 1");
  return JoinPath(root, name);
}

}  // namespace

ScopedKernelSetting::ScopedKernelSetting(NativePath path, std::string_view value) : m_path(std::move(path)) {
  std::ifstream in(m_path, std::ios::binary);
  ZYM_CHECK_OR_THROW(in.is_open(), "Cannot open for reading " << m_path);
  m_old.assign(std::istreambuf_iterator<char>(in), {});
  std::ofstream out(m_path, std::ios::binary | std::ios::trunc);
  ZYM_CHECK_OR_THROW(out.is_open(), "Cannot open for writing " << m_path);
  out << value;
}

ScopedKernelSetting::~ScopedKernelSetting() {
  // There is nobody to tell and nothing else to try.
  std::ofstream(m_path, std::ios::binary | std::ios::trunc) << m_old;
}

ScopedKernelAddresses::ScopedKernelAddresses(zym::ITracer* tracer, const NativePath& procRoot,
                                             std::string_view prefix)
    : m_kptrRestrict(TraceAndJoin(tracer, prefix, procRoot, "sys/kernel/kptr_restrict"), "0"),
      m_perfEventParanoid(JoinPath(procRoot, "sys/kernel/perf_event_paranoid"), "1") {}

}  // namespace qor::procfs
