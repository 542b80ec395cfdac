#include "host/services/process_suspender.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <utility>

#include "host/proc_files.h"
#include "qor_common/procfs_root.h"
#include "zym/exception_to_result.h"

namespace pmhost {
namespace {

constexpr std::size_t kLargestTransfer = 1 << 30;  // a call moves at most 2 GiB, a page less

// How much was read, from the beginning; and why it wasn't more.
struct Transfer {
  std::size_t done = 0;
  int error = 0;
};

template <class ReadPart>
void Continue(Transfer& transfer, const zym::types::blob_range_t& range, ReadPart readPart) {
  while (transfer.done < range.size()) {
    const ssize_t count = readPart(range.begin() + transfer.done,
                                   std::min(range.size() - transfer.done, kLargestTransfer), transfer.done);
    transfer.error = count < 0 ? errno : 0;
    if (count <= 0) return;
    transfer.done += static_cast<std::size_t>(count);
  }
}

// By process_vm_readv(2), and what that doesn't read (it came with Linux 3.2, and keeps to the protection of
// pages) by the mem file, which may allow it.
Transfer Read(std::uint32_t pid, std::uint64_t address, const zym::types::blob_range_t& range) {
  Transfer transfer;
  Continue(transfer, range, [&](std::uint8_t* to, std::size_t size, std::size_t offset) {
    const iovec local{.iov_base = to, .iov_len = size};
    const iovec remote{.iov_base = reinterpret_cast<void*>(address + offset), .iov_len = size};
    return ::process_vm_readv(static_cast<pid_t>(pid), &local, 1, &remote, 1, 0);
  });
  if (transfer.done == range.size()) return transfer;
  const qor::UniqueFd file = OpenProcFile(pid, "mem");
  if (!file) return transfer;
  Continue(transfer, range, [&](std::uint8_t* to, std::size_t size, std::size_t offset) {
    return ::pread64(file.Get(), to, size, static_cast<off64_t>(address + offset));
  });
  return transfer;
}

}  // namespace

zym::result_t ProcessSuspender::SuspendProcess(std::uint32_t pid, std::uint32_t timeout) try {
  const auto own = static_cast<std::uint32_t>(::getpid());
  if (pid == 0 || pid > std::numeric_limits<pid_t>::max() || pid == own) return zym::ZYM_E_INVALID_ARGUMENT;
  for (;;) {
    const std::shared_ptr<Process> process = Find(pid, true);
    if (process == nullptr) return zym::ZYM_E_INVALID_STATE;
    const std::scoped_lock lock(process->mutex);
    if (process->dropped) continue;
    if (process->suspensions == 0) {
      if (const zym::result_t result = StopNow(pid, timeout, process->stop); result != zym::ZYM_OK) {
        Drop(pid, *process);
        return result;
      }
    }
    ++process->suspensions;
    return zym::ZYM_OK;
  }
} catch (...) {
  return zym::ExceptionToResult(nullptr);
}

zym::result_t ProcessSuspender::ReleaseProcess(std::uint32_t pid) try {
  const std::shared_ptr<Process> process = Find(pid, false);
  if (process == nullptr) return zym::ZYM_E_NOT_FOUND;
  const std::scoped_lock lock(process->mutex);
  if (process->suspensions == 0) return zym::ZYM_E_NOT_FOUND;
  if (--process->suspensions == 0) Drop(pid, *process);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionToResult(nullptr);
}

zym::result_t ProcessSuspender::ReadMemory(std::uint32_t pid, std::uint64_t address,
                                           const zym::types::blob_range_t& range) try {
  const std::shared_ptr<Process> process = Find(pid, false);
  if (process == nullptr) return zym::ZYM_E_NOT_FOUND;
  const std::scoped_lock lock(process->mutex);
  if (process->suspensions == 0) return zym::ZYM_E_NOT_FOUND;
  const Transfer transfer = Read(pid, address, range);
  if (transfer.done == range.size()) return zym::ZYM_OK;
  if (transfer.done != 0) return zym::ZYM_FALSE;
  // A mem file without an error at its end is that of a process that has ended.
  const bool isGone = transfer.error == 0 || transfer.error == ESRCH;
  return isGone ? zym::ZYM_E_NOT_FOUND : zym::ErrnoToResult(transfer.error);
} catch (...) {
  return zym::ExceptionToResult(nullptr);
}

zym::result_t ProcessSuspender::Start() {
  if (qor::procfs::GetProcfsRoot() != "/proc/") return zym::ZYM_E_NOT_SUPPORTED;
  const std::scoped_lock lock(m_mutex);
  ++m_starts;
  return zym::ZYM_OK;
}

zym::result_t ProcessSuspender::Stop() try {
  std::map<std::uint32_t, std::shared_ptr<Process>> processes;
  {
    const std::scoped_lock lock(m_mutex);
    if (m_starts == 0) return zym::ZYM_FALSE;
    if (--m_starts != 0) return zym::ZYM_OK;
    processes = m_processes;
  }
  for (const auto& [pid, process] : processes) {
    const std::scoped_lock lock(process->mutex);
    process->suspensions = 0;
    Drop(pid, *process);
  }
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionToResult(nullptr);
}

zym::result_t ProcessSuspender::StopNow(std::uint32_t pid, std::uint32_t timeout,
                                        std::unique_ptr<ProcessStop>& stop) const {
  const StopDeadline deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout);
  zym::result_t result = zym::ZYM_E_NOT_SUPPORTED;
  for (const StopMeans means : m_means) {
    result = StopProcess(pid, means, deadline, stop);
    if (result != zym::ZYM_E_NOT_SUPPORTED) break;
  }
  return result;
}

std::shared_ptr<ProcessSuspender::Process> ProcessSuspender::Find(std::uint32_t pid, bool make) {
  const std::scoped_lock lock(m_mutex);
  if (const auto found = m_processes.find(pid); found != m_processes.end()) return found->second;
  if (!make || m_starts == 0) return nullptr;
  return m_processes.emplace(pid, std::make_shared<Process>()).first->second;
}

void ProcessSuspender::Drop(std::uint32_t pid, Process& process) {
  process.stop.reset();
  if (std::exchange(process.dropped, true)) return;
  const std::scoped_lock lock(m_mutex);
  m_processes.erase(pid);
}

}  // namespace pmhost
