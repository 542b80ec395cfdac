// A host as an outside project writes one: lists the processes, and listens for the end of one that it
// starts.
//
//   consumer MODULE          both; as root
//   consumer MODULE list     the list alone
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "host_kit/bootstrap.h"
#include "host_kit/loaded_module.h"
#include "host_kit/process_listener.h"
#include "zym/utf.h"

namespace {

const auto kSelf = static_cast<std::uint32_t>(::getpid());

void List(const host_kit::Bootstrap& host) {
  const auto processes = host.ListProcesses();
  for (const auto& process : processes)
    std::printf("%u %s\n", process.pid, zym::Utf16ToUtf8Lossy(process.imagePath).c_str());
  if (std::ranges::none_of(processes, [](const auto& process) { return process.pid == kSelf; }))
    throw host_kit::Failure("this process is not in the list");
}

// Returns when the end of a child has been reported.
void Listen(const host_kit::Bootstrap& host) {
  std::atomic<std::uint32_t> ended{0};
  const host_kit::ProcessListener listener(host, [&ended](const host_kit::EventView& event) {
    if (event.GetKind() != host_kit::EventKind::kExit || event.GetParentPid() != kSelf) return;
    ended = event.GetPid();
    ended.notify_one();
  });
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ended.wait(0);
  std::printf("%u has ended\n", ended.load());
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc < 2) throw host_kit::Failure("which module?");
  host_kit::LoadedModule module(argv[1]);
  {
    const host_kit::Bootstrap host(module);
    List(host);
    if (argc == 2) Listen(host);
  }
  if (!module.Unload()) throw host_kit::Failure("an object of the module is still alive");
  if (::dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) != nullptr) throw host_kit::Failure("it is still loaded");
} catch (const std::exception& error) {
  std::fprintf(stderr, "consumer: %s\n", error.what());
  return 1;
}
