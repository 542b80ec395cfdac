#include "support/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "qor_common/unique_fd.h"

namespace test_support {

std::string ReadTextFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Never by a stream, which would pass the descriptor on to a child: a program that somebody may still write
// to can't be run.
void WriteTextFile(const std::string& path, std::string_view text, mode_t mode) {
  const qor::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  if (!file || ::fchmod(file.Get(), mode) != 0)
    throw std::system_error(errno, std::generic_category(), "cannot make " + path);
  WriteAll(file.Get(), text);
}

void WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::system_error(errno, std::generic_category(), "write");
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

}  // namespace test_support
