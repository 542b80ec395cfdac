// Names of files from one view to another (class id class_ids::kFileNameMapper). On Linux a name is the same
// in every view, so each operation copies; two of them normalise on request.
//
// Any thread; the object keeps nothing. Pointers are to text with a terminator and are not null. The input
// may lie in the output. All results are ZYM_OK but for a lack of memory, which leaves `out` with any text.
//
// A normalised name has no empty components, no ".", and no ".." but, in a relative one, at its start. A name
// that begins with '/' keeps that one slash. A relative one begins with a "../" for each ".." that goes above
// its start, so that ".." alone becomes "../". Nothing is left: ".". No file is looked at, so a symbolic link
// before a ".." is dropped with it.
#pragma once

#include <cstdint>
#include <string_view>

#include "zym/containers.h"
#include "zym/iobject.h"

namespace system_interceptors::file_name_mapper {

struct IFileNameMapper : zym::IObject {
  static constexpr zym::iid_t kIid = 0xefc822f9;

  virtual zym::result_t CopyName(const zym::types::string16_t& in, zym::types::string16_t& out) = 0;
  virtual zym::result_t CopyName(const char16_t* in, zym::types::string16_t& out) = 0;
  virtual zym::result_t NormalizeName(const char16_t* in, zym::types::string16_t& out) = 0;

 protected:
  ~IFileNameMapper() = default;
};

struct IFileNameMapper2 : zym::IObject {
  static constexpr zym::iid_t kIid = 0x32dda863;

  // The `mode` that normalises. Any other copies.
  static constexpr std::uint32_t kNormalize = 1;

  virtual zym::result_t CopyName(std::u16string_view in, zym::types::string16_t& out) = 0;
  virtual zym::result_t CopyName(std::u16string_view in, zym::types::string16_t& out, std::uint32_t mode) = 0;

 protected:
  ~IFileNameMapper2() = default;
};

}  // namespace system_interceptors::file_name_mapper

namespace dorp {

struct IFileNameMapper : zym::IObject {
  static constexpr zym::iid_t kIid = 0xde5b3c97;

  virtual zym::result_t CopyName(const char16_t* in, zym::types::string16_t& out) = 0;
  // The first argument means nothing on Linux.
  virtual zym::result_t CopyName(std::uint64_t unused, const char16_t* in, zym::types::string16_t& out) = 0;
  // The way back, which is a copy too.
  virtual zym::result_t CopyNameBack(const char16_t* in, zym::types::string16_t& out) = 0;

 protected:
  ~IFileNameMapper() = default;
};

}  // namespace dorp
