#include "zym/trace.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "zym/utf.h"

namespace zym::trace {
namespace {

// A check that failed names the errno of what it checked, in a record that it opens first: the host's tracer
// must not come between.
class ErrnoKeeper {
 public:
  ErrnoKeeper() = default;
  ~ErrnoKeeper() { errno = m_errno; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  const int m_errno = errno;
};

}  // namespace

char* Record::OpenBuffer(ITracer* tracer, std::uint32_t level) noexcept {
  const ErrnoKeeper errnoKeeper;
  void* buffer = nullptr;
  return tracer->GetRecord(level, &buffer, kInitialRecordSize) == ZYM_OK ? static_cast<char*>(buffer)
                                                                         : nullptr;
}

void Record::Commit() noexcept {
  const ErrnoKeeper errnoKeeper;
  m_tracer->CommitRecord(m_buffer, m_length);
}

Record& Record::operator<<(std::string_view text) noexcept {
  FillFor(text.size());
  AppendWhole(text);
  return *this;
}

Record& Record::operator<<(std::u16string_view text) noexcept {
  FillFor(text.size());
  while (!text.empty()) {
    char bytes[4];
    Append({bytes, EncodeUtf8(TakeCodePoint(text).value_or(kReplacementCharacter), bytes)});
  }
  return *this;
}

Record& Record::operator<<(double value) noexcept {
  char digits[32];
  const auto end =
      std::to_chars(digits, digits + sizeof(digits), value, std::chars_format::general, m_precision).ptr;
  return *this << std::string_view(digits, static_cast<std::size_t>(end - digits));
}

Record& Record::operator<<(Code code) noexcept {
  const int base = std::exchange(m_base, 16);
  Append("0x");
  *this << Width{8, '0'} << static_cast<std::uint32_t>(code.result);
  m_base = base;
  const std::string_view text = ResultText(code.result);
  if (text != ResultText(-1)) *this << " (" << text << ")";
  return *this;
}

void Record::FillFor(std::size_t length) noexcept {
  const std::uint32_t width = std::exchange(m_width, 0);
  for (std::size_t i = length; i < width; ++i) Append({&m_fill, 1});
}

// Names of files are just bytes, and a record is UTF-8 to its last one.
void Record::AppendWhole(std::string_view text) noexcept {
  for (;;) {
    const std::size_t whole = Utf8Run(text);
    Append(text.substr(0, whole));
    text.remove_prefix(whole);
    if (text.empty()) return;
    Append("\uFFFD");
    text.remove_prefix(1);
  }
}

void Record::Append(std::string_view text) noexcept {
  if (m_overflowed || text.empty()) return;
  if (m_length + text.size() > m_capacity && !Grow(m_length + text.size())) {
    m_length = 0;
    m_capacity = 0;
    m_overflowed = true;
    return;
  }
  std::memcpy(m_buffer + m_length, text.data(), text.size());
  m_length += text.size();
}

bool Record::Grow(std::uint64_t needed) noexcept {
  const std::uint64_t size = std::max(needed, 2 * m_capacity);
  const ErrnoKeeper errnoKeeper;
  void* buffer = m_buffer;
  if (m_tracer->GetRecord(kDefaultCeiling, &buffer, size) != ZYM_OK || buffer == nullptr) return false;
  m_buffer = static_cast<char*>(buffer);
  m_capacity = size;
  return true;
}

}  // namespace zym::trace
