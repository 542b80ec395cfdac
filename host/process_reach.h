// Why a process can't be looked into.
#pragma once

#include <cstdint>
#include <string>

namespace pmhost {

// A sentence for a person that ends a command: what couldn't be done, why, and the remedy if one is known.
// The module tells the failure of a read by a code that many causes have; here the file `name` of the process
// is tried, to find which it was. `otherwise` is the reason when that file can be opened.
std::string ExplainProcess(const std::string& what, std::uint32_t pid, const char* name,
                           const std::string& otherwise);

}  // namespace pmhost
