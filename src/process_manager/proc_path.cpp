#include "process_manager/proc_path.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "qor_common/procfs_root.h"

namespace qor::procfs {

ProcPath::ProcPath(PidType pid) {
  const int length = std::snprintf(m_text, kCapacity, "%s%zu", GetProcfsRoot().c_str(), std::size_t{pid});
  m_length = std::min(static_cast<std::size_t>(length), kCapacity - 1);
}

void ProcPath::Append(std::string_view name) {
  if (name.empty()) return;
  if (m_text[m_length - 1] != '/' && m_length + 1 < kCapacity) m_text[m_length++] = '/';
  const std::size_t room = kCapacity - 1 - m_length;
  const std::size_t count = std::min(name.size(), room);
  std::memcpy(m_text + m_length, name.data(), count);
  m_length += count;
  m_text[m_length] = '\0';
}

NativePath JoinPath(const NativePath& root, std::string_view name) {
  NativePath path = root;
  if (!path.ends_with('/')) path += '/';
  return path.append(name);
}

}  // namespace qor::procfs
