#include "qor_common/procfs_root.h"

#include <unistd.h>

#include <cstdlib>

namespace qor::procfs {
namespace {

std::string FindProcfsRoot() {
  const char* const other = std::getenv("VORN_HOST_PROCFS");
  if (other == nullptr || *other == '\0' || ::access(other, F_OK) != 0) return "/proc/";
  std::string root = other;
  if (!root.ends_with('/')) root += '/';
  return root;
}

}  // namespace

const std::string& GetProcfsRoot() {
  static const std::string root = FindProcfsRoot();
  return root;
}

}  // namespace qor::procfs
