// The machine's users, from its own files.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qor::tools {

struct User {
  std::string name;
  std::uint32_t userId = 0;
  std::uint32_t groupId = 0;
  std::string home;
  std::string shell;
};

// Every well-formed line of passwd(5), in the order of the file; empty when the file can't be read. A line
// without its seven fields and numeric ids is passed over: a comment, or an inclusion of NIS.
std::vector<User> GetUsers(const char* path = "/etc/passwd");
std::vector<User> ParsePasswd(std::string_view text);

// The first user id of a person: the decimal number behind UID_MIN, the first word of a line of
// login.defs(5), the last such line counting; kDefaultMinUid when the file or the number is missing.
std::uint32_t GetMinUid(const char* path = "/etc/login.defs");
std::uint32_t ParseMinUid(std::string_view text);

inline constexpr std::uint32_t kDefaultMinUid = 1000;
inline constexpr const char* kSuperUserName = "root";

// Where the sessions of users are recorded.
inline const char* GetUtmpPath() {
  return "/var/run/utmp";
}

}  // namespace qor::tools
