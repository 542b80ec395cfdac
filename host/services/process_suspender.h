// The host's suspender: holds processes still for the module, and reads their memory.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "host/services/process_stop.h"
#include "process_manager/services/process_suspender.h"
#include "zym/object.h"

namespace pmhost {

// Calls for one process wait for each other; those for different processes don't. A host that is killed
// leaves what it has suspended behind as it is.
class ProcessSuspender : public zym::object::Ifaces<qor::IQorProcessSuspender>, public zym::NonCopyable {
 public:
  // The means are tried in this order, the next when the machine doesn't have one.
  explicit ProcessSuspender(std::vector<StopMeans> means = {StopMeans::kFreezer, StopMeans::kSignals})
      : m_means(std::move(means)) {}

  // ZYM_E_INVALID_STATE: the service isn't started. ZYM_E_INVALID_ARGUMENT: pid 0, or this process itself,
  // which could not release itself again.
  zym::result_t SuspendProcess(std::uint32_t pid, std::uint32_t timeout) override;
  // ZYM_E_NOT_FOUND: it isn't suspended.
  zym::result_t ReleaseProcess(std::uint32_t pid) override;
  // ZYM_E_NOT_FOUND: it isn't suspended.
  zym::result_t ReadMemory(std::uint32_t pid, std::uint64_t address,
                           const zym::types::blob_range_t& range) override;
  // ZYM_E_NOT_SUPPORTED: the procfs root is not this machine's own, so its pids are not those of this host.
  zym::result_t Start() override;
  // ZYM_FALSE: it isn't started.
  zym::result_t Stop() override;

 private:
  // One process that is, or is being, suspended.
  struct Process {
    std::mutex mutex;  // guards all below; held while the process is stopped or read
    std::uint32_t suspensions = 0;
    std::unique_ptr<ProcessStop> stop;
    bool dropped = false;  // no longer in m_processes
  };

  zym::result_t StopNow(std::uint32_t pid, std::uint32_t timeout, std::unique_ptr<ProcessStop>& stop) const;
  // Null, without `make`, when it isn't there.
  std::shared_ptr<Process> Find(std::uint32_t pid, bool make);
  // With the mutex of `process` held.
  void Drop(std::uint32_t pid, Process& process);

  const std::vector<StopMeans> m_means;

  std::mutex m_mutex;  // guards all below; taken inside that of a process
  std::uint32_t m_starts = 0;
  std::map<std::uint32_t, std::shared_ptr<Process>> m_processes;
};

}  // namespace pmhost
