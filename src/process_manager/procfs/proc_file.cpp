#include "process_manager/procfs/proc_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "qor_common/unique_fd.h"

namespace qor::procfs {
namespace {

constexpr std::size_t kSmallestLarge = 0x10000;

// read(2) until something comes, the end, or a failure.
ssize_t ReadSome(int fd, char* buffer, std::size_t size) {
  ssize_t count = 0;
  do {
    count = ::read(fd, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

// Whether the `count` bytes at `bytes`, of `room` that were asked for, are the last ones.
bool IsLast(ReadUntil until, const char* bytes, std::size_t count, std::size_t room) {
  if (count == 0) return true;
  switch (until) {
    case ReadUntil::kEnd:
      return false;
    case ReadUntil::kNewline:
      return std::memchr(bytes, '\n', count) != nullptr;
    case ReadUntil::kShortRead:
      return count < room;
  }
  return false;
}

}  // namespace

ReadResult ProcFile::Read(const char* path, ReadUntil until) {
  m_size = 0;
  m_large.clear();
  const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file) return ReadResult::kCannotOpen;
  bool full = false;
  const ReadResult result = ReadSmall(file.Get(), until, full);
  return full ? ReadLarge(file.Get(), until) : result;
}

// `full`: the buffer is, and the end hasn't come yet.
ReadResult ProcFile::ReadSmall(int fd, ReadUntil until, bool& full) {
  while (m_size < sizeof(m_small)) {
    char* const free = m_small + m_size;
    const std::size_t room = sizeof(m_small) - m_size;
    const ssize_t count = ReadSome(fd, free, room);
    if (count < 0) return ReadResult::kCannotRead;
    m_size += static_cast<std::size_t>(count);
    if (IsLast(until, free, static_cast<std::size_t>(count), room)) return ReadResult::kDone;
  }
  full = true;
  return ReadResult::kDone;
}

ReadResult ProcFile::ReadLarge(int fd, ReadUntil until) {
  m_large.reserve(kSmallestLarge);
  m_large.assign(m_small, m_size);
  std::size_t length = m_size;
  for (;;) {
    m_large.resize(std::max(2 * length, kSmallestLarge));
    char* const free = m_large.data() + length;
    const std::size_t room = m_large.size() - length;
    const ssize_t count = ReadSome(fd, free, room);
    if (count > 0) length += static_cast<std::size_t>(count);
    const bool last = count < 0 || IsLast(until, free, static_cast<std::size_t>(count), room);
    if (!last) continue;
    m_large.resize(length);
    return count < 0 ? ReadResult::kCannotRead : ReadResult::kDone;
  }
}

}  // namespace qor::procfs
