// Why a command ends: each is a sentence for a person and an exit status.
#pragma once

#include <stdexcept>
#include <string>

#include "zym/result.h"

namespace pmhost {

// The work failed: exit status 1. The text says what, on what, why, and the remedy if one is known.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "what: Access denied (0x80000045)"
std::string Explain(const std::string& what, zym::result_t result);

// Throws Failure unless the result is a success.
void Require(zym::result_t result, const std::string& what);

}  // namespace pmhost
