#include "qor_common/accounts.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>

#include "qor_common/unique_fd.h"

namespace qor::tools {
namespace {

// What can be read of a file; a directory has a name and no text.
std::string ReadText(const char* path) {
  const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
  std::string text;
  char chunk[4096];
  for (;;) {
    const ssize_t count = ::read(file.Get(), chunk, sizeof(chunk));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return text;
    text.append(chunk, static_cast<std::size_t>(count));
  }
}

std::string_view TakeLine(std::string_view& text) {
  const std::size_t end = text.find('\n');
  const std::string_view line = text.substr(0, end);
  text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  return line;
}

std::string_view TakeWord(std::string_view& line) {
  constexpr std::string_view kBlanks = " \t\r";
  const std::size_t begin = line.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  line.remove_prefix(begin);
  const std::string_view word = line.substr(0, line.find_first_of(kBlanks));
  line.remove_prefix(word.size());
  return word;
}

bool ToNumber(std::string_view text, std::uint32_t& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::vector<User> ParsePasswd(std::string_view text) {
  // name:password:uid:gid:gecos:home:shell, passwd(5)
  std::vector<User> users;
  while (!text.empty()) {
    std::string_view line = TakeLine(text);
    std::array<std::string_view, 7> fields;
    std::size_t count = 0;
    for (; count < fields.size(); ++count) {
      const std::size_t end = line.find(':');
      fields[count] = line.substr(0, end);
      if (end == std::string_view::npos) break;
      line.remove_prefix(end + 1);
    }
    User user{
        .name = std::string(fields[0]), .home = std::string(fields[5]), .shell = std::string(fields[6])};
    const bool whole = count == fields.size() - 1 && !user.name.empty();
    if (whole && ToNumber(fields[2], user.userId) && ToNumber(fields[3], user.groupId))
      users.push_back(std::move(user));
  }
  return users;
}

std::vector<User> GetUsers(const char* path) {
  return ParsePasswd(ReadText(path));
}

std::uint32_t ParseMinUid(std::string_view text) {
  std::uint32_t result = kDefaultMinUid;
  while (!text.empty()) {
    std::string_view line = TakeLine(text);
    if (TakeWord(line) != "UID_MIN") continue;
    if (std::uint32_t value = 0; ToNumber(TakeWord(line), value)) result = value;
  }
  return result;
}

std::uint32_t GetMinUid(const char* path) {
  return ParseMinUid(ReadText(path));
}

}  // namespace qor::tools
