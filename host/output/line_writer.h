// Standard output, line by line, without a system call for each line where nobody would see the difference.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace pmhost {

// A terminal gets each line at once. A pipe or a file gets what has gathered when it is 64 KiB, or 50 ms old:
// a reader of a pipe sees a line soon, and a storm of lines costs few writes. Any thread.
class LineWriter {
 public:
  explicit LineWriter(int fd);
  // Writes what is left.
  ~LineWriter();
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  // False: the reader is gone, or nothing can be written any more; lines are dropped from then on.
  bool WriteLine(std::string_view line);

  // Writes what is left. Throws Failure when lines were lost, unless it was the reader who went away.
  void Finish();

  // Columns of the terminal; 0 when it is no terminal.
  [[nodiscard]] std::size_t Width() const;

 private:
  void Flush(std::unique_lock<std::mutex>& lock);
  void FlushWhenOld();

  const int m_fd;
  const bool m_terminal;
  std::mutex m_mutex;  // guards all below
  std::condition_variable m_changed;
  std::string m_pending;
  int m_error = 0;  // the errno of the write that failed
  bool m_ending = false;
  std::thread m_flusher;
};

}  // namespace pmhost
