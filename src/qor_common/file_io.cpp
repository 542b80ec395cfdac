#include "qor_common/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "process_manager/host_services.h"
#include "qor_common/mount_namespace.h"
#include "qor_common/process_root.h"
#include "qor_common/tools.h"
#include "qor_common/unique_fd.h"
#include "zym/datetime.h"
#include "zym/exception.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"
#include "zym/utf.h"

namespace qor {
namespace {

using zym::trace::kCall;
using zym::trace::kFailure;
using namespace zym::io_access_mode;

zym::result_t Fail(zym::ITracer* tracer, const char* what) {
  const int error = errno;
  ZYM_TRACE(tracer, kFailure, what << std::strerror(error));
  return zym::ErrnoToResult(error);
}

int OpenFlagsOf(Type mode) {
  const bool write = (mode & kWrite) != 0;
  const bool read = (mode & kRead) != 0;
  return (write && read ? O_RDWR : write ? O_WRONLY : O_RDONLY) | O_CLOEXEC;
}

// What the descriptor was opened for.
Type ModeOf(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  switch (flags < 0 ? O_RDONLY : flags & O_ACCMODE) {
    case O_WRONLY:
      return kWrite;
    case O_RDWR:
      return kRead | kWrite;
    default:
      return kRead;
  }
}

zym::datetime_t FromTimespec(const timespec& time) {
  return zym::datetime::FromUnixSeconds(time.tv_sec) + time.tv_nsec / 100;
}

}  // namespace

IO::IO(zym::IServiceLocator* locator, int fd, int directoryFd, ino_t namespaceId, bool autoClose)
    : ServiceProvider(locator),
      m_fd(fd),
      m_directoryFd(directoryFd),
      m_nsId(namespaceId),
      m_accessMode(ModeOf(fd)),
      m_availableMode(m_accessMode),
      m_autoClose(autoClose) {}

IO::~IO() {
  ZYM_TRACE(GetTracer(), kCall, "virtual qor::IO::~IO()");
  try {
    if (IsDeletedOnClose() && !m_removed)
      ZYM_CHECK_RESULT_OR_THROW(RemoveFile(), "Cannot remove file " << m_path);
  } catch (...) {
    zym::ExceptionToResult(GetTracer(), "Unexpected exception in virtual qor::IO::~IO(): ");
  }
  if (!m_autoClose) return;
  Close(m_fd);
  Close(m_directoryFd);
}

void IO::Close(int fd) const {
  if (fd == -1) return;
  if (::close(fd) != 0) static_cast<void>(Fail(GetTracer(), " close: "));
}

// --- the stream
// -----------------------------------------------------------------------------------------------------

zym::result_t IO::Read(void* data, std::uint32_t size, std::uint32_t& done) {
  const ssize_t count = ::pread64(m_fd, data, size, static_cast<off64_t>(m_offset));
  if (count < 0) return Fail(GetTracer(), "read: ");
  done = static_cast<std::uint32_t>(count);
  m_offset += done;
  ZYM_TRACE(GetTracer(), kCall, "Read " << done << " bytes");
  return zym::ZYM_OK;
}

zym::result_t IO::Write(const void* data, std::uint32_t size, std::uint32_t& done) {
  const ssize_t count = ::pwrite64(m_fd, data, size, static_cast<off64_t>(m_offset));
  if (count < 0) return Fail(GetTracer(), "write: ");
  done = static_cast<std::uint32_t>(count);
  m_offset += done;
  ZYM_TRACE(GetTracer(), kCall, "Written " << done << " bytes");
  return zym::ZYM_OK;
}

zym::result_t IO::Seek(zym::io_seek_method::Type method, zym::file_offset_t offset,
                       zym::file_size_t* position) {
  // The descriptor's own position follows, but what counts for a relative move is this object's.
  if (method == zym::io_seek_method::kCurrent) {
    method = zym::io_seek_method::kBegin;
    offset += static_cast<zym::file_offset_t>(m_offset);
  }
  const off64_t moved = ::lseek64(m_fd, offset, static_cast<int>(method));
  if (moved < 0) return Fail(GetTracer(), "lseek64: ");
  m_offset = static_cast<zym::file_size_t>(moved);
  if (position != nullptr) *position = m_offset;
  ZYM_TRACE(GetTracer(), kCall, "New file offset: " << m_offset);
  return zym::ZYM_OK;
}

zym::result_t IO::GetPos(zym::file_size_t& position) const {
  position = m_offset;
  ZYM_TRACE(GetTracer(), kCall, "Current file offset: " << position);
  return zym::ZYM_OK;
}

zym::result_t IO::GetSize(zym::file_size_t& size) const {
  struct stat64 status {};
  if (::fstat64(m_fd, &status) != 0) return Fail(GetTracer(), "fstat64: ");
  size = static_cast<zym::file_size_t>(status.st_size);
  ZYM_TRACE(GetTracer(), kCall, "Current file size: " << size);
  return zym::ZYM_OK;
}

zym::result_t IO::SetSize(zym::file_size_t size) {
  if (::ftruncate(m_fd, static_cast<off_t>(size)) != 0) return Fail(GetTracer(), "ftruncate: ");
  ZYM_TRACE(GetTracer(), kCall, "New file size: " << size);
  return zym::ZYM_OK;
}

zym::result_t IO::Flush() {
  if (::fsync(m_fd) != 0) return Fail(GetTracer(), "fsync: ");
  return zym::ZYM_OK;
}

// --- the access mode
// ------------------------------------------------------------------------------------------------

zym::result_t IO::GetAccessMode(Type& mode) const {
  mode = m_accessMode;
  return zym::ZYM_OK;
}

zym::result_t IO::GetAvailableAccessMode(Type& mode) {
  mode = m_availableMode;
  return zym::ZYM_OK;
}

// The descriptor keeps its number and its position.
zym::result_t IO::ChangeAccessMode(Type mode) {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__ << ", mode:" << mode << " (fd: " << m_fd << ")");
  if (tools::IsAccessOk(mode, m_availableMode)) {
    m_accessMode = mode;
    return zym::ZYM_OK;
  }
  const Type requestedDelete = mode & kDelete;
  const Type availableDelete = m_availableMode & kDelete;
  ZYM_CHECK(GetTracer(), tools::IsAccessOk(requestedDelete, availableDelete), zym::ZYM_E_SHARING_VIOLATION,
            "Change denied due to delete mode mismatch, fd: " << m_fd);
  const off64_t off = ::lseek64(m_fd, 0, SEEK_CUR);
  ZYM_CHECK(GetTracer(), off != -1, zym::ZYM_E_UNSPECIFIED,
            "Cannot get current offset, " << std::strerror(errno));

  const std::string path = "/proc/self/fd/" + std::to_string(m_fd);
  const UniqueFd reopened(::open(path.c_str(), OpenFlagsOf(mode)));
  if (!reopened) {
    const int error = errno;
    ZYM_TRACE(GetTracer(), kFailure, "Cannot reopen, " << std::strerror(error));
    return error == ETXTBSY ? zym::ZYM_E_LOCKED : zym::ZYM_E_UNSPECIFIED;
  }
  const int newFd = reopened.Get();
  ZYM_CHECK(GetTracer(), ::lseek(newFd, off, 0) != -1, zym::ZYM_E_UNSPECIFIED,
            "Cannot reseek, " << std::strerror(errno));
  static_assert(O_CLOEXEC == 02000000);
  ZYM_CHECK(GetTracer(), ::dup3(newFd, m_fd, 02000000) != -1, zym::ZYM_E_UNSPECIFIED,
            "Cannot dup back, " << std::strerror(errno));
  m_accessMode = mode;
  m_availableMode = mode | availableDelete;
  return zym::ZYM_OK;
}

// --- the file
// -------------------------------------------------------------------------------------------------------

zym::result_t IO::GetPath(zym::types::string16_t& path) const try {
  const std::string nativePath = tools::GetDescriptorPath(m_fd);
  std::optional<zym::types::string16_t> converted = zym::Utf8ToUtf16(nativePath);
  if (nativePath.empty() || !converted) return zym::ZYM_E_UNSPECIFIED;
  path = std::move(*converted);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionToResult(GetTracer(), "Unexpected exception in GetPathImpl(nativePath): ");
}

zym::result_t IO::GetAttributes(std::uint32_t&) const {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

zym::result_t IO::SetAttributes(std::uint32_t) {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

zym::result_t IO::GetCreationTime(zym::datetime_t& time) const {
  return GetLastWriteTime(time);
}
zym::result_t IO::SetCreationTime(const zym::datetime_t& time) {
  return SetLastWriteTime(time);
}

zym::result_t IO::GetLastWriteTime(zym::datetime_t& time) const try {
  struct stat64 status {};
  if (::fstat64(m_fd, &status) != 0) return Fail(GetTracer(), "fstat64: ");
  time = FromTimespec(status.st_mtim);
  ZYM_TRACE(GetTracer(), kCall, "Last write time: " << time);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionToResult(GetTracer(), "Unexpected exception in GetLastWriteTime: ");
}

zym::result_t IO::GetLastAccessTime(zym::datetime_t& time) const try {
  struct stat64 status {};
  if (::fstat64(m_fd, &status) != 0) return Fail(GetTracer(), "fstat64: ");
  time = FromTimespec(status.st_atim);
  ZYM_TRACE(GetTracer(), kCall, "Last access time: " << time);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionToResult(GetTracer(), "Unexpected exception in GetLastAccessTime: ");
}

// futimens takes the access time first, the write time second.
zym::result_t IO::SetTime(int index, const zym::datetime_t& time) {
  timespec times[2] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, {.tv_sec = 0, .tv_nsec = UTIME_OMIT}};
  times[index] = zym::datetime::ToUnix(time);
  if (::futimens(m_fd, times) != 0) return Fail(GetTracer(), "futimens: ");
  return zym::ZYM_OK;
}

zym::result_t IO::SetLastWriteTime(const zym::datetime_t& time) try {
  ZYM_TRACE(GetTracer(), kCall, "Last write time: " << time);
  return SetTime(1, time);
} catch (...) {
  return zym::ExceptionToResult(GetTracer(), "Unexpected exception in SetLastWriteTime: ");
}

zym::result_t IO::SetLastAccessTime(const zym::datetime_t& time) try {
  ZYM_TRACE(GetTracer(), kCall, "Last access time: " << time);
  return SetTime(0, time);
} catch (...) {
  return zym::ExceptionToResult(GetTracer(), "Unexpected exception in SetLastAccessTime: ");
}

// --- properties and removal
// -----------------------------------------------------------------------------------------

zym::result_t IO::Get(zym::propid_t id, zym::types::variant_t* value) const try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << " id: " << id << " (fd: " << m_fd << ")");
  switch (id) {
    case file_property::kDescriptor:
      *value = zym::types::variant_t(std::int32_t{m_fd});
      return zym::ZYM_OK;
    case file_property::kRemoveFile: {
      const bool removed = ZYM_SUCCEEDED(RemoveFile());
      if (removed) m_removed = true;
      *value = zym::types::variant_t(std::int32_t{removed ? zym::ZYM_OK : zym::ZYM_E_UNSPECIFIED});
      return zym::ZYM_OK;
    }
    default:
      return PropertyBagImpl::Get(id, value);
  }
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), "Get");
}

zym::result_t IO::Put(zym::propid_t id, const zym::types::variant_t* value) try {
  if (id == file_property::kDeleteOnClose) m_path = tools::GetDescriptorPath(m_fd);
  return PropertyBagImpl::Put(id, value);
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), "Put");
}

bool IO::IsDeletedOnClose() const {
  zym::types::variant_t value;
  if (!ZYM_SUCCEEDED(PropertyBagImpl::Get(file_property::kDeleteOnClose, &value))) return false;
  const bool* const marked = value.If<bool>();
  return marked != nullptr && *marked;
}

zym::result_t IO::RemoveFile() const {
  const std::string& nativePath = m_path;
  ZYM_TRACE(GetTracer(), kCall,
            __PRETTY_FUNCTION__ << " (path: " << nativePath << ", fd: " << m_fd
                                << ", dirfd: " << m_directoryFd << ")");
  ZYM_CHECK(GetTracer(), !nativePath.empty(), zym::ZYM_E_UNSPECIFIED,
            "Cannot remove unnamed file, fd: " << m_fd);
  ZYM_CHECK(GetTracer(), !qor::tools::IsDeepNestedFile(nativePath), zym::ZYM_E_UNSPECIFIED,
            "Cannot remove unnamed deep nested file, fd: " << m_fd);
  const std::string filename = nativePath.substr(nativePath.rfind('/') + 1);
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << ", dirfd: (" << m_directoryFd << "), nsId: " << m_nsId << ", filename: " << filename);
  if (tools::IsForeignNamespace(m_nsId)) return RemoveFileInForeignNamespace(filename.c_str());
  const int failed =
      m_directoryFd == -1 ? ::unlink(nativePath.c_str()) : ::unlinkat(m_directoryFd, filename.c_str(), 0);
  if (failed == 0) return zym::ZYM_OK;
  const int error = errno;
  ZYM_TRACE(GetTracer(), zym::trace::kWarning,
            "Cannot remove '" << nativePath << "': " << std::strerror(error));
  return zym::ErrnoToResult(error);
}

zym::result_t IO::RemoveFileInForeignNamespace(const char* filename) const {
  zym::intrusive_ptr<IRootFdProvider> provider;
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), provider.Ref()),
                   "Cannot get IRootFdProvider interface");
  zym::intrusive_ptr<IDescriptor> namespaceFd;
  ZYM_CHECK_RESULT(GetTracer(), provider->GetNamespaceFd(m_nsId, namespaceFd.Ref()),
                   "Cannot get root directory fd for ns=" << m_nsId);
  ZYM_TRACE(GetTracer(), kCall, "nsid = " << m_nsId << ", namespace fd = " << namespaceFd->Get());
  return tools::UnlinkInNamespace(namespaceFd->Get(), m_directoryFd, filename);
}

}  // namespace qor
