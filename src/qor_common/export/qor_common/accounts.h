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

// Every well-formed line of "/etc/passwd"; empty when the file can't be read.
std::vector<User> GetUsers();
std::vector<User> ParsePasswd(std::string_view text);

// The first user id of a person: UID_MIN of "/etc/login.defs", or 1000.
std::uint32_t GetMinUid();
std::uint32_t ParseMinUid(std::string_view text);

inline constexpr std::uint32_t kDefaultMinUid = 1000;
inline constexpr const char* kSuperUserName = "root";

// Where the sessions of users are recorded.
inline const char* GetUtmpPath() {
  return "/var/run/utmp";
}

}  // namespace qor::tools
