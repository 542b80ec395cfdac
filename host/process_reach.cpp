#include "host/process_reach.h"

#include <fcntl.h>

#include <cerrno>

#include "host/failure.h"
#include "qor_common/procfs_root.h"
#include "qor_common/unique_fd.h"

namespace pmhost {

std::string ExplainProcess(const std::string& what, std::uint32_t pid, const char* name,
                           const std::string& otherwise) {
  const std::string path = qor::procfs::GetProcfsRoot() + std::to_string(pid) + "/" + name;
  const qor::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const int error = errno;
  if (file) return what + ": " + otherwise;
  if (error == ENOENT || error == ESRCH) return what + ": there is no such process";
  if (error == EACCES || error == EPERM)
    return what + ": needs CAP_SYS_PTRACE, as it belongs to another user or is protected: run as root";
  return Explain(what, zym::ErrnoToResult(error));
}

}  // namespace pmhost
