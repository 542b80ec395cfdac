#include "host/output/user_names.h"

#include <pwd.h>

namespace pmhost {

const std::string& UserNames::NameOf(std::uint32_t userId) {
  if (const auto known = m_names.find(userId); known != m_names.end()) return known->second;
  passwd entry{};
  char texts[4096];
  passwd* found = nullptr;
  const bool named = ::getpwuid_r(userId, &entry, texts, sizeof(texts), &found) == 0 && found != nullptr;
  return m_names.emplace(userId, named ? entry.pw_name : std::to_string(userId)).first->second;
}

}  // namespace pmhost
