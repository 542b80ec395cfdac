// Paths below the procfs root.
#pragma once

#include <cstddef>
#include <string_view>

#include "process_manager/types.h"

namespace qor::procfs {

// "<procfs root><pid>", and "/<name>" behind it. Built without allocating: several are made for every process
// that starts. What doesn't fit into 2048 bytes leaves an empty path, which no file has: a path that is cut
// would name another process.
class ProcPath {
 public:
  explicit ProcPath(PidType pid);
  ProcPath(PidType pid, std::string_view name) : ProcPath(pid) { Append(name); }

  // Joins with one slash, unless the path ends in one. An empty name changes nothing.
  void Append(std::string_view name);

  [[nodiscard]] const char* c_str() const { return m_text; }

 private:
  static constexpr std::size_t kCapacity = 2048;  // with the NUL at the end

  void SetLength(std::size_t length);

  char m_text[kCapacity];
  std::size_t m_length = 0;
};

// `root` and `name` joined with one slash.
NativePath JoinPath(const NativePath& root, std::string_view name);

}  // namespace qor::procfs
