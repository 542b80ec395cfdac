#include "process_manager/proc_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "qor_common/unique_fd.h"

namespace qor::procfs {
namespace {

// read(2) until something comes, the end, or a failure.
ssize_t ReadSome(int fd, char* buffer, std::size_t size) {
  ssize_t count = 0;
  do {
    count = ::read(fd, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

}  // namespace

ReadResult ProcFile::Read(const char* path) {
  m_size = 0;
  m_large.clear();
  const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file) return ReadResult::kCannotOpen;

  for (;;) {
    const ssize_t count = ReadSome(file.Get(), m_small + m_size, sizeof(m_small) - m_size);
    if (count < 0) return ReadResult::kCannotRead;
    m_size += static_cast<std::size_t>(count);
    if (count == 0) return ReadResult::kDone;
    if (m_size == sizeof(m_small)) break;
  }

  m_large.assign(m_small, m_size);
  for (;;) {
    const std::size_t length = m_large.size();
    m_large.resize(2 * length);
    const ssize_t count = ReadSome(file.Get(), m_large.data() + length, length);
    m_large.resize(length + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count < 0) return ReadResult::kCannotRead;
    if (count == 0) return ReadResult::kDone;
  }
}

}  // namespace qor::procfs
