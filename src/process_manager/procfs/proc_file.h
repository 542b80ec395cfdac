// Files of /proc, read with as few system calls as they need.
#pragma once

#include <string>
#include <string_view>

namespace qor::procfs {

enum class ReadResult { kDone, kCannotOpen, kCannotRead };

// How far a file is read.
enum class ReadUntil {
  kEnd,        // until a read returns nothing
  kNewline,    // until there is a whole line; more may come with it
  kShortRead,  // until a read returns less than there was room for: for files of one piece, as cmdline is
};

// A file's text. Small files stay in the object.
class ProcFile {
 public:
  // Reads the file from its beginning. After a failed read the text is what came before it; errno says why it
  // failed.
  ReadResult Read(const char* path, ReadUntil until = ReadUntil::kEnd);

  [[nodiscard]] std::string_view Text() const {
    return m_large.empty() ? std::string_view(m_small, m_size) : m_large;
  }

 private:
  ReadResult ReadSmall(int fd, ReadUntil until, bool& full);
  ReadResult ReadLarge(int fd, ReadUntil until);

  char m_small[4096];
  std::size_t m_size = 0;
  std::string m_large;
};

// The first line of a text, without its end.
inline std::string_view FirstLine(std::string_view text) {
  return text.substr(0, text.find('\n'));
}

}  // namespace qor::procfs
