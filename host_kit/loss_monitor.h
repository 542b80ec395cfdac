// What the kernel dropped of the process events, and whether their source still reads.
#pragma once

#include <cstdint>
#include <map>

namespace host_kit {

// Counts what the kernel could not put into the buffers of this process's listening sockets of the proc
// connector: each is an event that nobody hears of. A host asks now and then, and enumerates the processes
// behind a loss (Bootstrap::MeetProcesses, ProcessGuard::LoseMissing). One thread.
class LossMonitor {
 public:
  // Counts from here on. Throws Failure when the kernel's table of sockets can't be read.
  LossMonitor() { static_cast<void>(TakeDropped()); }

  // Of all such sockets, since the last call; of a socket that was opened since, from its beginning. What was
  // dropped between the last call and the end of a socket isn't known any more. Throws Failure as above.
  [[nodiscard]] std::uint64_t TakeDropped();

  // The thread that reads the module's socket runs: the source is on, and the thread has not failed. A host
  // that has turned the source on, and sees false here, hears nothing any more. Throws Failure when the
  // threads of this process can't be listed.
  [[nodiscard]] static bool SourceReads();

 private:
  std::map<std::uint64_t, std::uint64_t> m_dropped;  // as it was last seen, by the socket's inode
};

}  // namespace host_kit
