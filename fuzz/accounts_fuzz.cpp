// The readers of /etc/passwd and /etc/login.defs.
#include "qor_common/accounts.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

bool HasSeparator(std::string_view field) {
  return field.find_first_of(":\n") != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  // What was read, written down again, is read the same.
  const auto users = qor::tools::ParsePasswd(text);
  std::string again;
  for (const auto& user : users) {
    Require(!user.name.empty() && !HasSeparator(user.name) && !HasSeparator(user.home) &&
            !HasSeparator(user.shell));
    again += user.name + ":x:" + std::to_string(user.userId) + ":" + std::to_string(user.groupId) +
             "::" + user.home + ":" + user.shell + "\n";
  }
  const auto same = qor::tools::ParsePasswd(again);
  Require(same.size() == users.size());
  for (std::size_t i = 0; i < users.size(); ++i)
    Require(same[i].name == users[i].name && same[i].userId == users[i].userId &&
            same[i].groupId == users[i].groupId && same[i].home == users[i].home &&
            same[i].shell == users[i].shell);

  // A last line of its own decides.
  static_cast<void>(qor::tools::ParseMinUid(text));
  Require(qor::tools::ParseMinUid(std::string(text) + "\nUID_MIN 4711\n") == 4711);
  if (text.find("UID_MIN") == std::string_view::npos)
    Require(qor::tools::ParseMinUid(text) == qor::tools::kDefaultMinUid);
  return 0;
}
