// Why a host cannot go on, as a sentence for a person.
#pragma once

#include <stdexcept>
#include <string>

#include "zym/result.h"

namespace host_kit {

// What the kit throws. The text says what failed, on what, why, and what to do about it if that is known.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "what: Access denied (0x80000045)"
std::string Explain(const std::string& what, zym::result_t result);

// Throws Failure, with Explain's text, for a result that is a failure.
void Require(zym::result_t result, const std::string& what);

}  // namespace host_kit
