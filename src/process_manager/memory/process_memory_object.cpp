#include "process_manager/memory/process_memory_object.h"

#include <fcntl.h>
#include <ext/stdio_filebuf.h>

#include <cerrno>
#include <cstring>
#include <ios>
#include <istream>
#include <system_error>
#include <utility>

#include "process_manager/memory/process_memory_region_enumerator.h"
#include "process_manager/memory/process_memory_regions.h"
#include "process_manager/procfs/proc_path.h"
#include "qor_common/unique_fd.h"
#include "zym/exception.h"
#include "zym/exception_to_result.h"
#include "zym/generic_object_factory.h"
#include "zym/trace.h"

namespace qor::process_memory_manager {
namespace {

using system_interceptors::process_manager::IProcessInformation;
using zym::trace::kCall;
using zym::trace::kFailure;

constexpr std::uint32_t kSuspendTimeout = 120000;  // milliseconds

// A binary input file stream with exceptions armed. What a std::ifstream opens, a program that another thread
// starts during a read would inherit; here the stream lies over a descriptor that is closed by then. It has
// no buffer, so that the kernel is asked for the bytes that are wanted and no others, right into their place.
class MemoryFile : public std::istream {
 public:
  explicit MemoryFile(const char* path) : MemoryFile(Open(path)) {}

 private:
  explicit MemoryFile(UniqueFd file)
      : std::istream(nullptr), m_buffer(file.Get(), std::ios::in | std::ios::binary, 1) {
    if (m_buffer.is_open()) static_cast<void>(file.Release());  // the buffer closes it
    rdbuf(&m_buffer);
    exceptions(failbit | badbit);
    if (!m_buffer.is_open()) setstate(failbit);
  }

  static UniqueFd Open(const char* path) {
    UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    const int error = errno;
    if (!file) throw std::ios_base::failure("cannot open", std::error_code(error, std::generic_category()));
    return file;
  }

  __gnu_cxx::stdio_filebuf<char> m_buffer;
};

zym::result_t ReadMemoryFile(const char* path, std::uint64_t address, const zym::types::blob_range_t& range) {
  MemoryFile stream(path);
  // Addresses of the upper half are offsets beyond the sign, which the kernel takes for this file.
  stream.seekg(static_cast<std::streamoff>(address));
  const auto size = static_cast<std::streamsize>(range.size());
  std::streamsize count = 0;
  while (count < size) {
    stream.read(reinterpret_cast<char*>(range.begin()) + count, size - count);
    if (stream.gcount() == 0) break;
    count += stream.gcount();
  }
  return count == size ? zym::ZYM_OK : zym::ZYM_FALSE;
}

// The pid, when the control knows one.
PidType PidOf(IProcessControl* control) {
  zym::intrusive_ptr<IProcessInformation> information;
  ZYM_CHECK_RESULT_OR_THROW(control->GetInformation(information.Ref()),
                            "Couldn't obtain IProcessInformation interface");
  ZYM_CHECK_RESULT_OR_THROW(information ? zym::ZYM_OK : zym::ZYM_E_NO_INTERFACE,
                            "Couldn't obtain IProcessInformation interface");
  system_interceptors::process_manager::ProcessInformation record;
  ZYM_CHECK_RESULT_OR_THROW(information->GetInformation(record), "Couldn't obtain information about process");
  ZYM_CHECK_RESULT_OR_THROW(record.pid != 0 ? zym::ZYM_OK : zym::ZYM_E_INVALID_ARGUMENT,
                            "Couldn't obtain information about process");
  return record.pid;
}

}  // namespace

zym::intrusive_ptr<ProcessMemory> ProcessMemory::Create(zym::IServiceLocator* locator,
                                                        IProcessControl* control, bool suspend) {
  const PidType pid = PidOf(control);
  zym::intrusive_ptr<ProcessMemory> memory;
  ZYM_CHECK_RESULT_OR_THROW(
      zym::CreateInstance(locator, memory.Ref(), zym::intrusive_ptr<IProcessControl>(control), pid, suspend),
      "Cannot create ProcessMemory.");
  zym::intrusive_ptr<procfs::IParser> procfs;
  ZYM_CHECK_RESULT_OR_THROW(zym::GetInterface(locator, procfs.Ref()), "Failed to load procfs::IParser");
  ZYM_CHECK_RESULT_OR_THROW(procfs->GetMaps(pid, memory->m_maps),
                            "Failed procfs->GetMaps(" << pid << ", maps)");
  if (suspend) {
    const zym::result_t result = memory->SuspendProcess();
    // What wasn't suspended is not to be released: somebody else may have suspended the process too.
    if (!ZYM_SUCCEEDED(result)) memory->m_suspender.Reset();
    ZYM_CHECK_RESULT_OR_THROW(result, "Failed to stop process " << pid);
  }
  return memory;
}

ProcessMemory::ProcessMemory(zym::IServiceLocator* locator, zym::intrusive_ptr<IProcessControl> control,
                             PidType pid, bool suspend)
    : ServiceProvider(locator), m_control(std::move(control)), m_pid(pid), m_suspend(suspend) {}

void ProcessMemory::FinalRelease() {
  if (!m_suspender) return;
  if (!ZYM_SUCCEEDED(m_suspender->ReleaseProcess(m_pid)))
    ZYM_TRACE(GetTracer(), kFailure, "Failed to release process " << m_pid);
  m_suspender.Reset();
}

zym::result_t ProcessMemory::SuspendProcess() {
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), m_suspender.Ref()),
                   "Failed to obtain IQorProcessSuspender interface");
  ZYM_CHECK_RESULT_AS(
      GetTracer(),
      "m_suspender->SuspendProcess( static_cast<uint32_t>(pid), static_cast<uint32_t>(m_timeout))",
      m_suspender->SuspendProcess(m_pid, kSuspendTimeout), "Failed to suspend process");
  return zym::ZYM_OK;
}

zym::result_t ProcessMemory::EnumerateMemoryRegions(IProcessMemoryRegionEnumerator** enumerator) try {
  zym::intrusive_ptr<ProcessMemoryRegionEnumerator> made;
  ZYM_CHECK_RESULT_OR_THROW(
      zym::CreateInstance(GetServiceLocator(), made.Ref(), zym::intrusive_ptr<IProcessMemory>(this)),
      "Failed to create ProcessMemoryRegionEnumerator");
  *enumerator = made.Detach();
  return zym::ZYM_OK;
} catch (const std::exception& e) {
  ZYM_TRACE(GetTracer(), kCall, "Failed to enumerate regions for process " << m_pid << ": " << e.what());
  return zym::ZYM_E_UNSPECIFIED;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcessMemory::QueryRegion(std::uint64_t address, ProcessMemoryRegionInformation& information) {
  return process_memory_manager::QueryRegion(GetTracer(), m_maps, address, information);
}

zym::result_t ProcessMemory::QueryMappedFilePath(std::uint64_t address, zym::types::string16_t& path) const {
  return process_memory_manager::QueryMappedFilePath(GetTracer(), m_maps, address, path);
}

zym::result_t ProcessMemory::ReadMemory(std::uint64_t address, const zym::types::blob_range_t& range) {
  ZYM_TRACE(GetTracer(), kCall,
            "ProcessMemory::ReadMemory " << zym::trace::hex << address << " (size=" << range.size());
  if (address == 0) return zym::ZYM_E_INVALID_ARGUMENT;
  if (m_suspend) {
    if (m_suspender) return m_suspender->ReadMemory(m_pid, address, range);
    ZYM_TRACE(GetTracer(), kFailure, "Processes suspender is required but not initialized");
    return zym::ZYM_E_UNSPECIFIED;
  }
  const procfs::ProcPath path(m_pid, "mem");
  try {
    return ReadMemoryFile(path.c_str(), address, range);
  } catch (const std::exception& e) {
    ZYM_TRACE(GetTracer(), kFailure, "Couldn't read memory file " << path.c_str() << ": " << e.what());
    return zym::ExceptionToResult(nullptr);
  } catch (...) {
    const int error = errno;
    char text[128];
    ZYM_TRACE(GetTracer(), kFailure,
              "Couldn't read memory file " << path.c_str() << ": Unknown error :("
                                           << ::strerror_r(error, text, sizeof(text)));
    return zym::ExceptionToResult(nullptr);
  }
}

zym::result_t ProcessMemory::WriteMemory(std::uint64_t, const zym::types::const_blob_range_t&) {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

}  // namespace qor::process_memory_manager
