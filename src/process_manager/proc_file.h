// Whole files of /proc, read with as few system calls as they need.
#pragma once

#include <string>
#include <string_view>

namespace qor::procfs {

enum class ReadResult { kDone, kCannotOpen, kCannotRead };

// A file's text. Small files stay in the object.
class ProcFile {
 public:
  // Reads the file to its end. After a failed read the text is what came before it; errno says why.
  ReadResult Read(const char* path);

  [[nodiscard]] std::string_view Text() const {
    return m_large.empty() ? std::string_view(m_small, m_size) : m_large;
  }

 private:
  char m_small[4096];
  std::size_t m_size = 0;
  std::string m_large;
};

}  // namespace qor::procfs
