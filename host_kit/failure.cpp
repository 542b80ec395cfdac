#include "host_kit/failure.h"

#include <cstdio>

namespace host_kit {

std::string Explain(const std::string& what, zym::result_t result) {
  char code[16];
  std::snprintf(code, sizeof(code), "0x%08x", static_cast<unsigned>(result));
  return what + ": " + std::string(zym::ResultText(result)) + " (" + code + ")";
}

void Require(zym::result_t result, const std::string& what) {
  if (!ZYM_SUCCEEDED(result)) throw Failure(Explain(what, result));
}

}  // namespace host_kit
