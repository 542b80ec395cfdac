// The smallest thing an outside project does with the package: it compiles against the headers, links the
// libraries, loads the module, asks whether it may be unloaded, and unloads it.

#include <dlfcn.h>

#include <cstdio>

#include "process_manager/entry.h"
#include "zym/result.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s MODULE\n", argv[0]);
    return 2;
  }
  void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  auto canUnload = reinterpret_cast<decltype(&zymCanUnloadModule)>(dlsym(module, "zymCanUnloadModule"));
  if (canUnload == nullptr || canUnload() != zym::ZYM_OK) {
    std::fprintf(stderr, "%s: a module that nothing was asked of cannot be unloaded\n", argv[1]);
    return 1;
  }
  dlclose(module);
  if (dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) != nullptr) {
    std::fprintf(stderr, "%s: still there after dlclose\n", argv[1]);
    return 1;
  }
  return 0;
}
