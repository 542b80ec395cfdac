// Names of users for columns.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace pmhost {

// Asks the system once for each user.
class UserNames {
 public:
  // The number itself where there is no name, or where it can't be found.
  const std::string& NameOf(std::uint32_t userId);

 private:
  std::map<std::uint32_t, std::string> m_names;
};

}  // namespace pmhost
