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

}  // namespace zym
