// One open file as a stream.
#pragma once

#include <sys/types.h>

#include <string>

#include "zym/io.h"
#include "zym/object.h"
#include "zym/property_bag.h"
#include "zym/service_provider.h"

namespace qor {

// zym's interface, and the descriptor's number on the same pointer.
struct IFileDescriptor : zym::IFileDescriptor {
  static constexpr zym::iid_t kIid = zym::IidOf("qor::IFileDescriptor");

  virtual int GetDescriptor() const = 0;

 protected:
  ~IFileDescriptor() = default;
};

// Properties with a meaning; any other id is kept in the bag.
namespace file_property {
inline constexpr zym::propid_t kDeleteOnClose = 0x20601000;  // Put: keeps the path too, for the removal
inline constexpr zym::propid_t kRemoveFile =
    0x20500173;  // Get: removes the file; an int, 0 or ZYM_E_UNSPECIFIED
inline constexpr zym::propid_t kDescriptor = 0x30c02001;  // Get: the descriptor's number, an int
}  // namespace file_property

// Reads and writes at an offset of its own, so that nothing else moves it and several objects over one file
// don't disturb each other. One user at a time. Made by zym::CreateObject.
class IO : public zym::object::Ifaces<zym::IIO, zym::IAccessModeController, zym::IFileDescriptor,
                                      zym::PropertyBagImpl<zym::IPropertyBag>, IFileDescriptor>,
           public zym::ServiceProvider<zym::IServiceLocator, zym::ITracer> {
 public:
  // `directoryFd`: the directory of the file, or -1. `namespaceId`: the mount namespace that the file lives
  // in, or all ones. `autoClose`: the object owns both descriptors.
  IO(zym::IServiceLocator* locator, int fd, int directoryFd, ino_t namespaceId, bool autoClose);
  ~IO();
  IO(const IO&) = delete;
  IO& operator=(const IO&) = delete;

  zym::result_t Read(void* data, std::uint32_t size, std::uint32_t& done) override;
  zym::result_t Write(const void* data, std::uint32_t size, std::uint32_t& done) override;
  zym::result_t Seek(zym::io_seek_method::Type method, zym::file_offset_t offset,
                     zym::file_size_t* position) override;
  zym::result_t GetPos(zym::file_size_t& position) const override;
  zym::result_t GetSize(zym::file_size_t& size) const override;
  zym::result_t SetSize(zym::file_size_t size) override;
  zym::result_t Flush() override;

  zym::result_t GetAccessMode(zym::io_access_mode::Type& mode) const override;
  zym::result_t ChangeAccessMode(zym::io_access_mode::Type mode) override;
  zym::result_t GetAvailableAccessMode(zym::io_access_mode::Type& mode) override;

  zym::result_t GetPath(zym::types::string16_t& path) const override;
  zym::result_t GetAttributes(std::uint32_t& attributes) const override;
  zym::result_t GetCreationTime(zym::datetime_t& time) const override;
  zym::result_t GetLastWriteTime(zym::datetime_t& time) const override;
  zym::result_t GetLastAccessTime(zym::datetime_t& time) const override;
  zym::result_t GetFileSize(zym::file_size_t& size) const override { return GetSize(size); }
  zym::result_t SetAttributes(std::uint32_t attributes) override;
  zym::result_t SetCreationTime(const zym::datetime_t& time) override;
  zym::result_t SetLastWriteTime(const zym::datetime_t& time) override;
  zym::result_t SetLastAccessTime(const zym::datetime_t& time) override;
  int GetDescriptor() const override { return m_fd; }

  zym::result_t Get(zym::propid_t id, zym::types::variant_t* value) const override;
  zym::result_t Put(zym::propid_t id, const zym::types::variant_t* value) override;

 private:
  zym::result_t RemoveFile() const;
  zym::result_t RemoveFileInForeignNamespace(const char* filename) const;
  zym::result_t SetTime(int index, const zym::datetime_t& time);
  bool IsDeletedOnClose() const;
  void Close(int fd) const;

  const int m_fd;
  const int m_directoryFd;
  const ino_t m_nsId;
  zym::io_access_mode::Type m_accessMode;
  zym::io_access_mode::Type m_availableMode;  // the highest reached so far
  const bool m_autoClose;
  mutable bool m_removed = false;
  zym::file_size_t m_offset = 0;
  std::string m_path;  // kept when delete on close is put
};

}  // namespace qor
