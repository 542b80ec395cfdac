// The one way in which output leaves.
#pragma once

#include <string_view>

namespace pmhost {

// Writes everything; waits for a slow reader where the descriptor would not. 0, or the errno.
int WriteAll(int fd, std::string_view text);

}  // namespace pmhost
