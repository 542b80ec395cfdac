// Why a process can't be read.
#pragma once

#include <cstdint>
#include <string>

namespace pmhost {

enum class Reach {
  kOpen,
  kDenied,  // for a want of CAP_SYS_PTRACE
  kGone,    // there is no such process, or it is ending and has no such link any more
};

// Tries the link `name` of the process's directory, as "exe": whoever may read that may read all the rest.
Reach ReachOf(std::uint32_t pid, const char* name);

// How to get a capability that is missing.
std::string Remedy();

// The right that is missing for kDenied, and the remedy.
std::string MissingRight();

// A sentence for a person that ends a command: what couldn't be done, why, and the remedy if one is known.
// The module reports a read that failed by a code that many causes have; here the file `name` of the process
// is opened, to find which it was. `otherwise` is the reason when that file can be opened.
std::string ExplainProcess(const std::string& what, std::uint32_t pid, const char* name,
                           const std::string& otherwise);

}  // namespace pmhost
