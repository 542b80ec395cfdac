// Loop of the poll thread: it waits for datagrams and for the request to stop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "zym/tracer.h"

namespace qor::process_manager::non_blocking {

// A descriptor that datagrams come from.
struct IDatagramSource {
  // The one to poll for POLLIN.
  [[nodiscard]] virtual int GetDescriptor() const = 0;
  // One datagram, in the manner of recv(2): its length, 0 for an empty one, or -1 with errno. Never waits.
  virtual std::int64_t Receive(void* buffer, std::size_t size) = 0;

 protected:
  ~IDatagramSource() = default;
};

// Owns nothing but a buffer on the stack of the thread that runs it: the descriptors and the source are the
// caller's, and outlive the run.
class PollLoop {
 public:
  // Datagrams are read up to this many bytes.
  static constexpr std::size_t kMaxMessageSize = 4096;

  // Called with each datagram, aligned to 8 bytes. What it throws ends the loop.
  using Process = std::function<void(const void* buffer, std::uint64_t size)>;

  // `tracer` may be null.
  PollLoop(zym::ITracer* tracer, int stopDescriptor, IDatagramSource& source, Process process);

  // Waits, without a time limit, and reads whenever there is something to read. A stop comes before datagrams
  // that wait. ZYM_OK: the stop descriptor became readable. ZYM_E_UNSPECIFIED, traced: a descriptor is
  // broken, or poll(2) failed.
  zym::result_t Run();

  // Reads until there is nothing more, which is ZYM_OK. ZYM_E_UNSPECIFIED, traced: a read failed. With
  // ENOBUFS the kernel has dropped datagrams (netlink(7)): they are lost, and what comes after them can be
  // read.
  zym::result_t ReadNetlink();

 private:
  bool IsOverflow(int fd);
  void TraceReadError(int error);

  zym::ITracer* m_tracer;
  int m_stopDescriptor;
  IDatagramSource& m_source;
  Process m_process;
};

}  // namespace qor::process_manager::non_blocking
