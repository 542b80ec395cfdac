#include "process_manager/procfs/proc_path.h"

#include <charconv>
#include <cstring>

#include "qor_common/procfs_root.h"

namespace qor::procfs {

ProcPath::ProcPath(PidType pid) {
  constexpr std::size_t kPidDigits = 10;
  const std::string& root = GetProcfsRoot();
  if (root.size() + kPidDigits >= kCapacity) {
    SetLength(0);
    return;
  }
  std::memcpy(m_text, root.data(), root.size());
  const char* const end = std::to_chars(m_text + root.size(), m_text + kCapacity, pid).ptr;
  SetLength(static_cast<std::size_t>(end - m_text));
}

void ProcPath::Append(std::string_view name) {
  if (name.empty() || m_length == 0) return;
  const bool slash = m_text[m_length - 1] != '/';
  if (m_length + (slash ? 1 : 0) + name.size() >= kCapacity) return SetLength(0);
  if (slash) m_text[m_length++] = '/';
  std::memcpy(m_text + m_length, name.data(), name.size());
  SetLength(m_length + name.size());
}

void ProcPath::SetLength(std::size_t length) {
  m_length = length;
  m_text[length] = '\0';
}

NativePath JoinPath(const NativePath& root, std::string_view name) {
  NativePath path = root;
  if (!path.ends_with('/')) path += '/';
  return path.append(name);
}

}  // namespace qor::procfs
