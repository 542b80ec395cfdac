#include "host/environment.h"

#include <sys/auxv.h>

#include <cstdio>
#include <cstdlib>

namespace pmhost {

void RemoveUntrustedVariables() {
  if (::getauxval(AT_SECURE) == 0) return;
  for (const char* const name : {"VORN_HOST_PROCFS", "QOR_VALGRIND_CHECK"}) {
    if (std::getenv(name) == nullptr) continue;
    ::unsetenv(name);
    std::fprintf(stderr, "pmhost: ignores %s: pmhost has more rights than the program that started it\n",
                 name);
  }
}

}  // namespace pmhost
