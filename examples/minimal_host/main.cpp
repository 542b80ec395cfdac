// The smallest host: prints the next ten starts and ends of processes. As root: minimal_host MODULE
#include <atomic>
#include <cstdio>
#include <exception>

#include "host_kit/bootstrap.h"
#include "host_kit/loaded_module.h"
#include "host_kit/process_listener.h"

namespace {

using host_kit::EventKind;

void Print(const host_kit::EventView& event) {
  const EventKind kind = event.GetKind();
  const char* const name = kind == EventKind::kFork ? "fork" : kind == EventKind::kExec ? "exec" : "exit";
  std::printf("%s %u %s\n", name, event.GetPid(), event.GetImagePath().value_or("?").c_str());
}

void Run(const char* file) {
  const host_kit::LoadedModule module(file);
  const host_kit::Bootstrap host(module);  // knows every process that runs already

  std::atomic<int> left{10};
  const host_kit::ProcessListener listener(host, [&left](const host_kit::EventView& event) {
    if (left == 0) return;
    Print(event);
    if (--left == 0) left.notify_one();
  });
  while (const int count = left) left.wait(count);
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) {
    std::fputs("usage: minimal_host MODULE\n", stderr);
    return 2;
  }
  Run(argv[1]);
} catch (const std::exception& error) {
  std::fprintf(stderr, "minimal_host: %s\n", error.what());
  return 1;
}
