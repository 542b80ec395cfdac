// Paths through the root of a process, and the walk down long ones.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <boost/regex.hpp>

#include "qor_common/process_root.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path(reinterpret_cast<const char*>(data), size);

  static const boost::regex pattern("/proc/[0-9]+/root/.*");
  const bool expected = boost::regex_match(path, pattern);
  Require(qor::tools::IsProcRootPath(path) == expected);

  const std::string rest = qor::tools::StripProcRoot(path);
  if (expected) {
    Require(rest.starts_with('/') && rest.size() <= 4096);
    Require(rest.find_first_of(" \t\n\v\f\r") == std::string::npos);
    const std::string::size_type root = path.find("/root/");
    Require(path.compare(root + 5, rest.size(), rest) == 0);
  } else {
    Require(rest.empty());
  }

  // Where nothing can be opened the walk ends, with an errno and nothing left open. Relative paths only,
  // below a directory that is empty.
  static const int empty = [] {
    char name[] = "/tmp/proc_root_path_fuzz.XXXXXX";
    if (::mkdtemp(name) == nullptr) std::abort();
    const int fd = ::open(name, O_DIRECTORY | O_CLOEXEC);
    ::rmdir(name);
    return fd;
  }();
  const int next = ::dup(empty);
  ::close(next);
  if (!path.starts_with('/')) {
    errno = 0;
    const int fd = qor::tools::OpenLongPath(empty, path, O_PATH | O_CLOEXEC);
    Require(fd >= 0 || errno != 0);
    if (fd >= 0) ::close(fd);
  }
  const int after = ::dup(empty);
  ::close(after);
  Require(after == next);
  return 0;
}
