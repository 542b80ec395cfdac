#include "host/services/tracer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/failure.h"

namespace pmhost {
namespace {

// A record in memory: padding, the level as text, the text itself, and room for a line end.
constexpr std::size_t kLevelWidth = 4;

struct Layout {
  static char* Line(void* text) { return static_cast<char*>(text) - kLevelWidth; }
  static void* Memory(void* text) { return Line(text) - kLevelWidth; }  // keeps the text aligned for 8 bytes
  static void* Text(void* memory) { return static_cast<char*>(memory) + 2 * kLevelWidth; }
  static std::size_t Size(std::uint64_t text) { return 2 * kLevelWidth + text + 1; }
};

}  // namespace

Tracer::Tracer(std::uint32_t ceiling, const std::string& file) : m_ceiling(ceiling) {
  if (file.empty()) return;
  m_file.Reset(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640));
  if (!m_file) throw Failure("cannot write the trace to " + file + ": " + std::strerror(errno));
}

zym::result_t Tracer::GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) {
  const bool opening = *buffer == nullptr;
  if (opening && level > m_ceiling) return zym::ZYM_E_NOT_MATCHED;
  void* const memory = std::realloc(opening ? nullptr : Layout::Memory(*buffer), Layout::Size(size));
  if (memory == nullptr) return zym::ZYM_E_OUT_OF_MEMORY;
  *buffer = Layout::Text(memory);
  if (opening) {
    char text[kLevelWidth + 1];
    std::snprintf(text, sizeof(text), "%3u ", level % 1000);
    std::memcpy(Layout::Line(*buffer), text, kLevelWidth);
  }
  return zym::ZYM_OK;
}

void Tracer::CommitRecord(void* buffer, std::uint64_t length) {
  char* const line = Layout::Line(buffer);
  line[kLevelWidth + length] = '\n';
  const int fd = m_file ? m_file.Get() : STDERR_FILENO;
  // A trace that can't be written is lost: tracing never fails what it traces.
  static_cast<void>(!::write(fd, line, kLevelWidth + length + 1));
  std::free(Layout::Memory(buffer));
}

}  // namespace pmhost
