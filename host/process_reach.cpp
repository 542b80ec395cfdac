#include "host/process_reach.h"

#include <unistd.h>

#include <cerrno>

#include "host/failure.h"
#include "host/proc_files.h"

namespace pmhost {
namespace {

bool IsDenial(int error) {
  return error == EACCES || error == EPERM;
}

}  // namespace

Reach ReachOf(std::uint32_t pid, const char* name) {
  const int error = TryProcLink(pid, name);
  if (error == 0) return Reach::kOpen;
  return IsDenial(error) ? Reach::kDenied : Reach::kGone;
}

std::string Remedy() {
  return ::geteuid() != 0 ? "run as root" : "this root lacks it";
}

std::string MissingRight() {
  if (::geteuid() != 0) return "needs CAP_SYS_PTRACE: run as root";
  return "needs CAP_SYS_PTRACE and every capability that they have, which this root lacks";
}

std::string ExplainProcess(const std::string& what, std::uint32_t pid, const char* name,
                           const std::string& otherwise) {
  const qor::UniqueFd file = OpenProcFile(pid, name);
  const int error = errno;
  if (file) return what + ": " + otherwise;
  if (error == ENOENT || error == ESRCH) return what + ": there is no such process";
  if (IsDenial(error))
    return what + ": needs CAP_SYS_PTRACE, as it belongs to another user or is protected: " + Remedy();
  return Explain(what, zym::ErrnoToResult(error));
}

}  // namespace pmhost
