#include "host/process_reach.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string_view>

#include "host/failure.h"
#include "qor_common/procfs_root.h"
#include "qor_common/unique_fd.h"

namespace pmhost {
namespace {

std::string PathOf(std::uint32_t pid, const char* name) {
  return qor::procfs::GetProcfsRoot() + std::to_string(pid) + "/" + name;
}

bool IsDenial(int error) {
  return error == EACCES || error == EPERM;
}

}  // namespace

Reach ReachOf(std::uint32_t pid, const char* name) {
  char target[1];  // what it names doesn't matter
  const ssize_t length = ::readlink(PathOf(pid, name).c_str(), target, sizeof(target));
  const int error = errno;
  if (length >= 0) return Reach::kOpen;
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
  const qor::UniqueFd file(::open(PathOf(pid, name).c_str(), O_RDONLY | O_CLOEXEC));
  const int error = errno;
  if (file) return what + ": " + otherwise;
  if (error == ENOENT || error == ESRCH) return what + ": there is no such process";
  if (IsDenial(error))
    return what + ": needs CAP_SYS_PTRACE, as it belongs to another user or is protected: " + Remedy();
  return Explain(what, zym::ErrnoToResult(error));
}

std::optional<std::uint32_t> ProcessOfThread(std::uint32_t id) {
  constexpr std::string_view kField = "Tgid:";  // proc(5), /proc/<pid>/status
  std::ifstream status(PathOf(id, "status"));
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(kField))
      return static_cast<std::uint32_t>(std::strtoul(line.c_str() + kField.size(), nullptr, 10));
  return std::nullopt;
}

}  // namespace pmhost
