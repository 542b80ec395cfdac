#include "qor_common/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "process_manager/services/root_fd_provider.h"
#include "qor_common/mount_namespace.h"
#include "qor_common/tools.h"
#include "qor_common/unique_fd.h"
#include "zym/exception.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"
#include "zym/utf.h"

namespace qor {
namespace {

using zym::trace::kCall;
using zym::trace::kFailure;
using zym::trace::kWarning;
namespace mode = zym::io_access_mode;

constexpr std::string_view kUnexpected = "Unexpected exception in ";

static_assert(sizeof(off_t) == 8, "the plain calls are those for large files");

// O_PATH opens a name and no content: nothing can be read from it or written to it.
mode::Type ModeOfDescriptor(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || (flags & O_PATH) != 0) return 0;
  switch (flags & O_ACCMODE) {
    case O_RDONLY:
      return mode::kRead;
    case O_WRONLY:
      return mode::kWrite;
    default:
      return mode::kRead | mode::kWrite;
  }
}

int OpenFlagsOf(mode::Type wanted) {
  constexpr mode::Type kBoth = mode::kRead | mode::kWrite;
  if ((wanted & kBoth) == kBoth) return O_RDWR | O_CLOEXEC;
  return ((wanted & mode::kWrite) != 0 ? O_WRONLY : O_RDONLY) | O_CLOEXEC;
}

NativePath FileNameOf(const NativePath& path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

IO::IO(zym::IServiceLocator* locator, int fd, int directoryFd, ino_t namespaceId, bool autoClose,
       std::optional<mode::Type> availableMode)
    : ServiceProvider(locator),
      m_fd(fd),
      m_directoryFd(directoryFd),
      m_nsId(namespaceId),
      m_accessMode(availableMode ? *availableMode : ModeOfDescriptor(fd)),
      m_availableMode(m_accessMode),
      m_autoClose(autoClose) {}

// Where a record names a whole operation, here and below, the text is written out: compilers differ in how
// they print the names of types.
IO::~IO() {
  ZYM_TRACE(GetTracer(), kCall, "virtual qor::IO::~IO() (fd: " << m_fd << ")");
  try {
    if (IsDeleteOnClose() && !m_removed)
      ZYM_CHECK_RESULT_OR_THROW(RemoveFile(), "Cannot remove file " << m_path);
  } catch (...) {
    zym::ExceptionInFunctionToResult(GetTracer(), __func__, kUnexpected);
  }
  if (!m_autoClose) return;
  Close(m_fd);
  Close(m_directoryFd);
}

void IO::Close(int fd) const noexcept {
  if (fd == -1 || ::close(fd) == 0) return;
  const int error = errno;
  // In the name of the destructor, which this is a part of.
  ZYM_TRACE(GetTracer(), kFailure, "~IO: (fd: " << fd << ") close: " << ::strerror(error));
}

// --- zym::IIO ---

zym::result_t IO::Read(void* data, std::uint32_t size, std::uint32_t& done) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() size: " << size << " (fd: " << m_fd << ")");
  const ssize_t count = ::pread(m_fd, data, size, static_cast<off_t>(m_offset));
  const int error = errno;
  ZYM_CHECK(GetTracer(), count != -1, zym::ErrnoToResult(error), "read: " << ::strerror(error));
  m_offset += static_cast<zym::file_size_t>(count);
  done = static_cast<std::uint32_t>(count);
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- Read " << done << " bytes");
  return zym::ZYM_OK;
}

zym::result_t IO::Write(const void* data, std::uint32_t size, std::uint32_t& done) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() size: " << size << " (fd: " << m_fd << ")");
  const ssize_t count = ::pwrite(m_fd, data, size, static_cast<off_t>(m_offset));
  const int error = errno;
  ZYM_CHECK(GetTracer(), count != -1, zym::ErrnoToResult(error), "write: " << ::strerror(error));
  m_offset += static_cast<zym::file_size_t>(count);
  done = static_cast<std::uint32_t>(count);
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- Written " << done << " bytes");
  return zym::ZYM_OK;
}

zym::result_t IO::Seek(zym::io_seek_method::Type method, zym::file_offset_t offset,
                       zym::file_size_t* position) {
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << "() method: " << static_cast<std::uint32_t>(method) << ", offset: " << offset
                     << " (fd: " << m_fd << ")");
  // The current offset is this object's own, which the kernel doesn't know.
  int whence = static_cast<int>(method);
  off_t target = offset;
  bool fits = true;
  if (method == zym::io_seek_method::kCurrent) {
    whence = SEEK_SET;
    fits = !__builtin_add_overflow(static_cast<off_t>(m_offset), offset, &target);
  }
  const off_t newOffset = fits ? ::lseek(m_fd, target, whence) : -1;
  const int error = fits ? errno : EOVERFLOW;
  ZYM_CHECK(GetTracer(), newOffset != -1, zym::ErrnoToResult(error), "lseek64: " << ::strerror(error));
  m_offset = static_cast<zym::file_size_t>(newOffset);
  if (position != nullptr) *position = m_offset;
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- New file offset: " << m_offset);
  return zym::ZYM_OK;
}

zym::result_t IO::GetPos(zym::file_size_t& position) const {
  position = m_offset;
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << "() <- Current file offset: " << m_offset << " (fd: " << m_fd << ")");
  return zym::ZYM_OK;
}

zym::result_t IO::GetSize(zym::file_size_t& size) const {
  struct stat status {};
  const int result = ::fstat(m_fd, &status);
  const int error = errno;
  ZYM_CHECK(GetTracer(), result != -1, zym::ErrnoToResult(error), "fstat64: " << ::strerror(error));
  size = static_cast<zym::file_size_t>(status.st_size);
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- Current file size: " << size << " (fd: " << m_fd << ")");
  return zym::ZYM_OK;
}

zym::result_t IO::SetSize(zym::file_size_t size) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() size: " << size << " (fd: " << m_fd << ")");
  // A size that off_t can't hold becomes negative, which the kernel refuses with EINVAL.
  const int result = ::ftruncate(m_fd, static_cast<off_t>(size));
  const int error = errno;
  ZYM_CHECK(GetTracer(), result != -1, zym::ErrnoToResult(error), "ftruncate: " << ::strerror(error));
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- New file size: " << size);
  return zym::ZYM_OK;
}

zym::result_t IO::Flush() {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() (fd: " << m_fd << ")");
  const int result = ::fsync(m_fd);
  const int error = errno;
  ZYM_CHECK(GetTracer(), result != -1, zym::ErrnoToResult(error), "fsync: " << ::strerror(error));
  return zym::ZYM_OK;
}

// --- zym::IAccessModeController ---

zym::result_t IO::GetAccessMode(mode::Type& current) const {
  current = m_accessMode;
  return zym::ZYM_OK;
}

zym::result_t IO::GetAvailableAccessMode(mode::Type& available) {
  available = m_availableMode;
  return zym::ZYM_OK;
}

zym::result_t IO::ChangeAccessMode(mode::Type wanted) {
  ZYM_TRACE(GetTracer(), kCall,
            "virtual result_t qor::IO::ChangeAccessMode(zym::io_access_mode::Type), mode:"
                << wanted << " (fd: " << m_fd << ")");
  if (tools::IsAccessOk(wanted, m_availableMode)) {
    m_accessMode = wanted;
    return zym::ZYM_OK;
  }
  const mode::Type requestedDelete = wanted & mode::kDelete;
  const mode::Type availableDelete = m_availableMode & mode::kDelete;
  ZYM_CHECK(GetTracer(), tools::IsAccessOk(requestedDelete, availableDelete), zym::ZYM_E_SHARING_VIOLATION,
            "Change denied due to delete mode mismatch, fd: " << m_fd);
  if (const zym::result_t result = ReopenWith(wanted); !ZYM_SUCCEEDED(result)) return result;
  m_accessMode = wanted;
  m_availableMode = wanted | availableDelete;
  return zym::ZYM_OK;
}

// Puts a new opening of the same file in the place of the old one.
zym::result_t IO::ReopenWith(mode::Type wanted) {
  const off_t offset = ::lseek(m_fd, 0, SEEK_CUR);
  ZYM_CHECK_AS(GetTracer(), "off != -1", offset != -1, zym::ZYM_E_UNSPECIFIED,
               "Cannot get current offset, fd: " << m_fd);

  char link[32];
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", m_fd);
  const UniqueFd newFile(::open(link, OpenFlagsOf(wanted)));
  const int error = errno;
  ZYM_CHECK_AS(GetTracer(), "newFd != -1", newFile,
               error == ETXTBSY ? zym::ZYM_E_LOCKED : zym::ZYM_E_UNSPECIFIED,
               "Cannot reopen, fd: " << m_fd << ": " << ::strerror(error));

  ZYM_CHECK_AS(GetTracer(), "::lseek(newFd, off, 0) != -1", ::lseek(newFile.Get(), offset, SEEK_SET) != -1,
               zym::ZYM_E_UNSPECIFIED, "Cannot reseek, fd: " << m_fd);
  ZYM_CHECK_AS(GetTracer(), "::dup3(newFd, m_fd, 02000000) != -1",
               ::dup3(newFile.Get(), m_fd, O_CLOEXEC) != -1, zym::ZYM_E_UNSPECIFIED,
               "Cannot dup back, fd: " << m_fd);
  return zym::ZYM_OK;
}

// --- zym::IPropertyBag ---

zym::result_t IO::Get(zym::propid_t id, zym::types::variant_t* value) const try {
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << "() id: " << zym::trace::hex << id << zym::trace::dec << " (fd: " << m_fd << ")");
  switch (id) {
    case zym::io_property::NativeDescriptor:
      *value = zym::types::variant_t(std::int32_t{m_fd});
      return zym::ZYM_OK;
    case zym::io_property::RemoveFile: {
      // The mark says whether the path was ever kept; a removal without it fails for want of a name.
      ZYM_TRACE(GetTracer(), kCall, __func__ << ": delete on close: " << IsDeleteOnClose());
      const bool removed = ZYM_SUCCEEDED(RemoveFile());
      if (removed) m_removed = true;
      *value = zym::types::variant_t(std::int32_t{removed ? zym::ZYM_OK : zym::ZYM_E_UNSPECIFIED});
      return zym::ZYM_OK;
    }
    default:
      return PropertyBagImpl::Get(id, value);
  }
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__, kUnexpected);
}

zym::result_t IO::Put(zym::propid_t id, const zym::types::variant_t* value) try {
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << "() id: " << zym::trace::hex << id << zym::trace::dec << " (fd: " << m_fd << ")");
  if (id == zym::io_property::DeleteOnClose) {
    NativePath nativePath;
    ZYM_CHECK_RESULT_AS(GetTracer(), "GetPathImpl(nativePath)", tools::GetDescriptorPath(m_fd, nativePath));
    m_path = std::move(nativePath);
  }
  return PropertyBagImpl::Put(id, value);
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__, kUnexpected);
}

bool IO::IsDeleteOnClose() const {
  zym::types::variant_t value;
  if (!ZYM_SUCCEEDED(PropertyBagImpl::Get(zym::io_property::DeleteOnClose, &value))) return false;
  const bool* const marked = value.If<bool>();
  return marked != nullptr && *marked;
}

// --- removal: the parts trace in the name of RemoveFile ---

zym::result_t IO::RemoveFile() const {
  ZYM_TRACE(GetTracer(), kCall,
            "result_t qor::IO::RemoveFile() const (path: " << m_path << ", fd: " << m_fd
                                                           << ", dirfd: " << m_directoryFd << ")");
  ZYM_CHECK_AS(GetTracer(), "!nativePath.empty()", !m_path.empty(), zym::ZYM_E_UNSPECIFIED,
               "Cannot remove unnamed file, fd: " << m_fd);
  ZYM_CHECK_AS(GetTracer(), "!qor::tools::IsDeepNestedFile(nativePath)", !tools::IsDeepNestedFile(m_path),
               zym::ZYM_E_UNSPECIFIED, "Cannot remove unnamed deep nested file, fd: " << m_fd);
  const NativePath filename = FileNameOf(m_path);
  ZYM_TRACE(GetTracer(), kCall,
            "result_t qor::IO::RemoveFile() const (fd: " << m_fd << ", dirfd: (" << m_directoryFd
                                                         << "), nsId: " << m_nsId
                                                         << ", filename: " << filename << ")");
  return tools::IsForeignNamespace(m_nsId) ? RemoveInForeignNamespace(filename)
                                           : RemoveInOwnNamespace(filename);
}

zym::result_t IO::RemoveInOwnNamespace(const NativePath& filename) const {
  const int result =
      m_directoryFd == -1 ? ::unlink(m_path.c_str()) : ::unlinkat(m_directoryFd, filename.c_str(), 0);
  const int error = errno;
  if (result == 0) return zym::ZYM_OK;
  ZYM_TRACE(GetTracer(), kWarning, "RemoveFile: Cannot remove '" << m_path << "': " << ::strerror(error));
  return zym::ErrnoToResult(error);
}

zym::result_t IO::RemoveInForeignNamespace(const NativePath& filename) const {
  zym::intrusive_ptr<IRootFdProvider> provider;
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), provider.Ref()),
                   "Cannot get IRootFdProvider interface");
  zym::intrusive_ptr<IDescriptor> namespaceFd;
  ZYM_CHECK_RESULT(GetTracer(), provider->GetNamespaceFd(m_nsId, namespaceFd.Ref()),
                   "Cannot get root directory fd for ns=" << m_nsId);
  ZYM_TRACE(GetTracer(), kCall, "RemoveFile: nsid = " << m_nsId << ", namespace fd = " << namespaceFd->Get());
  return ZYM_REPORT_RESULT(GetTracer(),
                           tools::UnlinkInNamespace(namespaceFd->Get(), m_directoryFd, filename.c_str()),
                           "Cannot remove '" << filename << "' in ns=" << m_nsId);
}

// --- zym::IFileDescriptor ---

zym::result_t IO::GetPath(zym::types::string16_t& path) const try {
  NativePath nativePath;
  ZYM_CHECK_RESULT_AS(GetTracer(), "GetPathImpl(nativePath)", tools::GetDescriptorPath(m_fd, nativePath));
  auto text = zym::Utf8ToUtf16(nativePath);
  ZYM_CHECK(GetTracer(), text.has_value(), zym::ZYM_E_UNSPECIFIED, "The path is not valid UTF-8");
  path = std::move(*text);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__, kUnexpected);
}

zym::result_t IO::GetAttributes(std::uint32_t&) const {
  ZYM_TRACE(GetTracer(), kCall, "virtual result_t qor::IO::GetAttributes(uint32_t&) const");
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

zym::result_t IO::SetAttributes(std::uint32_t) {
  ZYM_TRACE(GetTracer(), kCall, "virtual result_t qor::IO::SetAttributes(uint32_t)");
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

// By design: a file here has no creation time of its own.
zym::result_t IO::GetCreationTime(zym::datetime_t& time) const {
  return GetLastWriteTime(time);
}

zym::result_t IO::SetCreationTime(const zym::datetime_t& time) {
  return SetLastWriteTime(time);
}

zym::result_t IO::GetLastWriteTime(zym::datetime_t& time) const try {
  struct stat status {};
  const int result = ::fstat(m_fd, &status);
  const int error = errno;
  ZYM_CHECK(GetTracer(), result != -1, zym::ErrnoToResult(error), "fstat64: " << ::strerror(error));
  time = zym::datetime::FromUnix(status.st_mtim);
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- Last write time: " << time);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__, kUnexpected);
}

zym::result_t IO::GetLastAccessTime(zym::datetime_t& time) const try {
  struct stat status {};
  const int result = ::fstat(m_fd, &status);
  const int error = errno;
  ZYM_CHECK(GetTracer(), result != -1, zym::ErrnoToResult(error), "fstat64: " << ::strerror(error));
  time = zym::datetime::FromUnix(status.st_atim);
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- Last access time: " << time);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__, kUnexpected);
}

zym::result_t IO::SetLastWriteTime(const zym::datetime_t& time) try {
  const std::timespec times[2] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, zym::datetime::ToUnix(time)};
  const int result = ::futimens(m_fd, times);
  const int error = errno;
  ZYM_CHECK(GetTracer(), result != -1, zym::ErrnoToResult(error), "futimens: " << ::strerror(error));
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- Last write time: " << time);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__, kUnexpected);
}

zym::result_t IO::SetLastAccessTime(const zym::datetime_t& time) try {
  const std::timespec times[2] = {zym::datetime::ToUnix(time), {.tv_sec = 0, .tv_nsec = UTIME_OMIT}};
  const int result = ::futimens(m_fd, times);
  const int error = errno;
  ZYM_CHECK(GetTracer(), result != -1, zym::ErrnoToResult(error), "futimens: " << ::strerror(error));
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- Last access time: " << time);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__, kUnexpected);
}

zym::result_t IO::GetDescriptor(int& fd) const {
  fd = m_fd;
  return zym::ZYM_OK;
}

}  // namespace qor
