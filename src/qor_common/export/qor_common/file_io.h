// One open file descriptor as a stream.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "process_manager/file_descriptor.h"
#include "process_manager/types.h"
#include "zym/io.h"
#include "zym/object.h"
#include "zym/property_bag.h"
#include "zym/service_provider.h"

namespace qor {

// Has no lock: one user at a time. Reads and writes at an offset of its own, which begins at 0 and which only
// this object moves, so that several objects over one file don't disturb each other.
//
// Beside a property map it has the properties of zym::io_property. DeleteOnClose is put: the path that the
// file has at that moment is kept, and the destructor removes the file of that name. RemoveFile removes it at
// once, and the destructor then leaves it alone. A file that lives in another mount namespace (`namespaceId`)
// is removed there, by its name below `directoryFd`, with a namespace descriptor from the host's
// IRootFdProvider.
class IO : public zym::object::Ifaces<zym::IIO, zym::IAccessModeController, zym::IFileDescriptor,
                                      zym::PropertyBagImpl<zym::IPropertyBag>, IFileDescriptor>,
           private zym::ServiceProvider<zym::IServiceLocator, zym::ITracer> {
 public:
  // `directoryFd`: the directory of the file, or -1. `namespaceId`: the inode of the mount namespace that
  // both were opened in, or kNoMountNamespace. With `autoClose` both descriptors are closed in the end; a
  // constructor that throws (zym::GetInterfaceException: no tracer) leaves them to the caller.
  // `availableMode`: the mode to begin with; by default what the descriptor was opened for, without kDelete.
  IO(zym::IServiceLocator* locator, int fd, int directoryFd, ino_t namespaceId, bool autoClose,
     std::optional<zym::io_access_mode::Type> availableMode = std::nullopt);

  // zym::IIO
  zym::result_t Read(void* data, std::uint32_t size, std::uint32_t& done) override;
  zym::result_t Write(const void* data, std::uint32_t size, std::uint32_t& done) override;
  zym::result_t Seek(zym::io_seek_method::Type method, zym::file_offset_t offset,
                     zym::file_size_t* position) override;
  zym::result_t GetPos(zym::file_size_t& position) const override;
  zym::result_t GetSize(zym::file_size_t& size) const override;  // of zym::IFileDescriptor too
  zym::result_t SetSize(zym::file_size_t size) override;
  zym::result_t Flush() override;

  // zym::IAccessModeController. A change keeps the number of the descriptor and the position of lseek(2).
  zym::result_t GetAccessMode(zym::io_access_mode::Type& mode) const override;
  zym::result_t ChangeAccessMode(zym::io_access_mode::Type mode) override;
  zym::result_t GetAvailableAccessMode(zym::io_access_mode::Type& mode) override;

  // zym::IPropertyBag
  zym::result_t Get(zym::propid_t id, zym::types::variant_t* value) const override;
  zym::result_t Put(zym::propid_t id, const zym::types::variant_t* value) override;

  // zym::IFileDescriptor. A file has no creation time here: the two operations are those of the last write.
  // Attributes are ZYM_E_NOT_IMPLEMENTED.
  zym::result_t GetPath(zym::types::string16_t& path) const override;
  zym::result_t GetAttributes(std::uint32_t& attributes) const override;
  zym::result_t GetCreationTime(zym::datetime_t& time) const override;
  zym::result_t GetLastWriteTime(zym::datetime_t& time) const override;
  zym::result_t GetLastAccessTime(zym::datetime_t& time) const override;
  zym::result_t SetAttributes(std::uint32_t attributes) override;
  zym::result_t SetCreationTime(const zym::datetime_t& time) override;
  zym::result_t SetLastWriteTime(const zym::datetime_t& time) override;
  zym::result_t SetLastAccessTime(const zym::datetime_t& time) override;

  // IFileDescriptor
  zym::result_t GetDescriptor(int& fd) const override;

 protected:
  ~IO();

 private:
  zym::result_t ReopenWith(zym::io_access_mode::Type mode);
  bool IsDeleteOnClose() const;
  zym::result_t RemoveFile() const;
  zym::result_t RemoveInOwnNamespace(const NativePath& filename) const;
  zym::result_t RemoveInForeignNamespace(const NativePath& filename) const;
  void Close(int fd) const noexcept;

  const int m_fd;
  const int m_directoryFd;
  const ino_t m_nsId;
  zym::io_access_mode::Type m_accessMode;
  zym::io_access_mode::Type m_availableMode;
  const bool m_autoClose;
  mutable bool m_removed = false;  // set by Get, which is where a removal is asked for
  zym::file_size_t m_offset = 0;
  NativePath m_path;  // empty until DeleteOnClose is put
};

}  // namespace qor
