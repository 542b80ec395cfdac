#include "host/output/line_writer.h"

#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "host/failure.h"
#include "host/output/write_all.h"

namespace pmhost {
namespace {

constexpr std::size_t kLargeEnough = 64 * 1024;
constexpr std::chrono::milliseconds kOldEnough{50};

}  // namespace

LineWriter::LineWriter(int fd) : m_fd(fd), m_terminal(::isatty(fd) == 1) {
  if (!m_terminal) m_flusher = std::thread(&LineWriter::FlushWhenOld, this);
}

LineWriter::~LineWriter() {
  {
    std::unique_lock lock(m_mutex);
    m_ending = true;
    m_changed.notify_all();
    Flush(lock);
  }
  if (m_flusher.joinable()) m_flusher.join();
}

bool LineWriter::WriteLine(std::string_view line) {
  std::unique_lock lock(m_mutex);
  if (m_error != 0) return false;
  const bool first = m_pending.empty();
  m_pending.append(line).push_back('\n');
  if (m_terminal || m_pending.size() >= kLargeEnough)
    Flush(lock);
  else if (first)
    m_changed.notify_all();
  return m_error == 0;
}

// Under the lock: lines leave in their order, and a slow reader holds the writer back instead of filling the
// memory.
void LineWriter::Flush(std::unique_lock<std::mutex>&) {
  if (m_error == 0) m_error = WriteAll(m_fd, m_pending);
  m_pending.clear();
}

void LineWriter::FlushWhenOld() {
  ::prctl(PR_SET_NAME, "pmhost-output");
  std::unique_lock lock(m_mutex);
  while (!m_ending) {
    m_changed.wait(lock, [this] { return m_ending || !m_pending.empty(); });
    m_changed.wait_for(lock, kOldEnough, [this] { return m_ending; });
    Flush(lock);
  }
}

void LineWriter::Finish() {
  std::unique_lock lock(m_mutex);
  Flush(lock);
  if (m_error != 0 && m_error != EPIPE)
    throw Failure(std::string("cannot write the output: ") + std::strerror(m_error));
}

std::size_t LineWriter::Width() const {
  winsize size{};
  return m_terminal && ::ioctl(m_fd, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

}  // namespace pmhost
