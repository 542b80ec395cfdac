// Streams of bytes and what can be asked of the file behind one.
#pragma once

#include <cstdint>

#include "zym/containers.h"
#include "zym/datetime.h"
#include "zym/iobject.h"

namespace zym {

using file_size_t = std::uint64_t;
using file_offset_t = std::int64_t;

namespace io_seek_method {
enum Type : std::uint32_t { kBegin = 0, kCurrent = 1, kEnd = 2 };  // the values of lseek(2)
}

namespace io_access_mode {
using Type = std::uint32_t;
inline constexpr Type kRead = 1;
inline constexpr Type kWrite = 2;
inline constexpr Type kDelete = 4;
}  // namespace io_access_mode

// Properties that a stream over a file has in its IPropertyBag.
namespace io_property {
inline constexpr std::uint32_t DeleteOnClose = 0x20601000;  // bool: the file is removed with the object
inline constexpr std::uint32_t RemoveFile = 0x20500173;  // reading it removes the file; int32, a result code
inline constexpr std::uint32_t NativeDescriptor =
    0x30c02001;  // int32: the file descriptor, which stays the object's
}  // namespace io_property

// One user at a time. A failed system call gives its errno as a result code.
struct IIO : IObject {
  static constexpr iid_t kIid = 0x0000000a;

  // Up to `size` bytes at the current offset, which moves on by `done`. `done` of 0 is the end of the stream.
  virtual result_t Read(void* data, std::uint32_t size, std::uint32_t& done) = 0;
  virtual result_t Write(const void* data, std::uint32_t size, std::uint32_t& done) = 0;
  // `position` may be null.
  virtual result_t Seek(io_seek_method::Type method, file_offset_t offset, file_size_t* position) = 0;
  virtual result_t GetPos(file_size_t& position) const = 0;
  virtual result_t GetSize(file_size_t& size) const = 0;
  virtual result_t SetSize(file_size_t size) = 0;
  virtual result_t Flush() = 0;

 protected:
  ~IIO() = default;
};

// What may be done with a stream that is already open. A mode is a set of io_access_mode bits.
struct IAccessModeController : IObject {
  static constexpr iid_t kIid = IidOf("zym::IAccessModeController");

  virtual result_t GetAccessMode(io_access_mode::Type& mode) const = 0;
  // Makes `mode` the current one. ZYM_E_SHARING_VIOLATION: it asks for kDelete, which can't be gained once
  // the stream is open. ZYM_E_LOCKED: the file is a program that runs. On failure the mode stays as it was.
  virtual result_t ChangeAccessMode(io_access_mode::Type mode) = 0;
  // What a change gets without touching the file.
  virtual result_t GetAvailableAccessMode(io_access_mode::Type& mode) = 0;

 protected:
  ~IAccessModeController() = default;
};

// The file behind a stream. A setter that fails changes nothing; a getter that fails leaves the value alone.
struct IFileDescriptor : IObject {
  static constexpr iid_t kIid = IidOf("zym::IFileDescriptor");

  virtual result_t GetPath(types::string16_t& path) const = 0;
  virtual result_t GetAttributes(std::uint32_t& attributes) const = 0;
  virtual result_t GetCreationTime(datetime_t& time) const = 0;
  virtual result_t GetLastWriteTime(datetime_t& time) const = 0;
  virtual result_t GetLastAccessTime(datetime_t& time) const = 0;
  virtual result_t GetSize(file_size_t& size) const = 0;
  virtual result_t SetAttributes(std::uint32_t attributes) = 0;
  virtual result_t SetCreationTime(const datetime_t& time) = 0;
  virtual result_t SetLastWriteTime(const datetime_t& time) = 0;
  virtual result_t SetLastAccessTime(const datetime_t& time) = 0;

 protected:
  ~IFileDescriptor() = default;
};

}  // namespace zym
