#include "zym/result.h"

#include <algorithm>
#include <array>
#include <cerrno>

namespace zym {
namespace {

struct CodeText {
  std::uint32_t code;
  std::string_view text;
};

constexpr std::string_view kUnknown = "Unknown result code";

// Both tables are sorted by code, for bisection.
constexpr auto kCommon = std::to_array<CodeText>({
    {0x00000000, "No error"},
    {0x00000001, "False"},
    {0x80000001, "Interface not supported"},
    {0x80000040, "Unexpected"},
    {0x80000041, "Out of memory"},
    {0x80000042, "Not supported"},
    {0x80000043, "Not implemented"},
    {0x80000044, "Buffer too small"},
    {0x80000045, "Access denied"},
    {0x80000046, "Invalid argument"},
    {0x80000047, "Bad cast"},
    {0x8000004a, "Not matched"},
    {0x8000004b, "Unspecified error"},
    {0x8000004c, "Not found"},
    {0x8000004d, "Found"},
    {0x8000004f, "Locked"},
    {0x80000050, "Not locked"},
    {0x80000051, "Operation cancelled"},
    {0x80000057, "Method not found"},
    {0x80000058, "Stack is empty"},
    {0x80000059, "Media error"},
    {0x8000005a, "Invalid signature"},
    {0x8000005b, "Invalid version"},
    {0x8000005c, "Invalid size"},
    {0x8000005d, "Invalid type"},
    {0x8000005e, "Out of range"},
    {0x80000062, "Out of space"},
    {0x80000063, "Not ready"},
    {0x80000064, "Less than"},
    {0x80000065, "More than"},
    {0x80000066, "Prohibited"},
    {0x80000067, "Already done"},
    {0x80000068, "Need reboot"},
    {0x80000069, "Bases corrupted"},
    {0x8000006a, "Invalid state"},
    {0x8000006b, "Not initialized"},
    {0x8000006c, "Insufficient resources"},
    {0x80000071, "Invalid result"},
    {0x80000072, "Unknown exception"},
    {0x80000076, "Meta information not found"},
    {0x80000077, "Numerical type overflow"},
    {0x80000078, "File is too big"},
    {0x80000079, "Trace level ok"},
    {0x8000007a, "Trace level prohibited"},
    {0x80000100, "Class not found"},
    {0x80000101, "Settings are required"},
    {0x80000102, "Unexpected settings"},
    {0x80000103, "Wrong settings type"},
    {0x80000104, "Wrong settings revision"},
    {0x80000105, "Settings not found"},
    {0x80000106, "Object is untrusted"},
    {0x80000150, "No current exception"},
    {0x80000151, "Exception has no result code"},
    {0x80000152, "Exception with successful result code"},
    {0x80000180, "Property not found"},
    {0x80000221, "Operation timeout"},
    {0x80000300, "Invalid symbol"},
    {0x80000301, "Non dec symbol"},
    {0x80000302, "Non hex symbol"},
    {0x80000303, "Non base64 symbol"},
    {0x80000310, "Syntax error"},
    {0x80000311, "GUID syntax error"},
    {0x80000312, "OID syntax error"},
    {0x80000313, "DateTime syntax error"},
});

constexpr auto kPlatform = std::to_array<CodeText>({
    {0x80010100, "Unspecified platform error"},
    {0x80010101, "Invalid handle"},
    {0x80010102, "File not found"},
    {0x80010103, "Path not found"},
    {0x80010104, "Sharing violation"},
    {0x80010105, "Already exists"},
    {0x80010106, "Wait abandoned"},
    {0x80010107, "Symbol not found"},
    {0x80010108, "Sxs is incorrect"},
    {0x80010109, "Invalid path name"},
    {0x80010110, "Cannot open an anonymous level security token"},
    {0x80010111, "Password is invalid"},
    {0x80010112, "Module not found"},
    {0x80010113, "System image bad signature"},
    {0x80010114, "Cloud file request aborted"},
    {0x80010115, "Memory mapping failed"},
    {0x80010116, "Network error"},
    {0x80010117, "System image bad format"},
    {0x80010118, "System shutdown in progress"},
});

static_assert(std::ranges::is_sorted(kCommon, {}, &CodeText::code));
static_assert(std::ranges::is_sorted(kPlatform, {}, &CodeText::code));

template <std::size_t N>
std::string_view Find(const std::array<CodeText, N>& table, std::uint32_t code) noexcept {
  const auto found = std::ranges::lower_bound(table, code, {}, &CodeText::code);
  return found != table.end() && found->code == code ? found->text : kUnknown;
}

}  // namespace

std::string_view ResultText(result_t result) noexcept {
  const auto code = static_cast<std::uint32_t>(result);
  switch ((code >> 16) & 0x7fff) {
    case 0:
      return Find(kCommon, code);
    case 1:
      return Find(kPlatform, code);
    default:
      return kUnknown;
  }
}

result_t ErrnoToResult(int error) noexcept {
  // What a failed load of a library reports lies at and above this value, beyond every errno.
  constexpr int kSymbolNotFound = 65535;
  switch (error) {
    case 0:
      return ZYM_OK;
    case EPERM:
    case EACCES:
      return ZYM_E_ACCESS_DENIED;
    case ENOENT:
      return ZYM_E_FILE_NOT_FOUND;
    case EIO:
      return ZYM_E_MEDIA_ERROR;
    case ENOEXEC:
      return ZYM_E_BAD_IMAGE_FORMAT;
    case EBADF:
      return ZYM_E_INVALID_HANDLE;
    case ENOMEM:
      return ZYM_E_OUT_OF_MEMORY;
    case EBUSY:
    case ETXTBSY:
      return ZYM_E_LOCKED;
    case EEXIST:
      return ZYM_E_ALREADY_EXISTS;
    case ENOTDIR:
      return ZYM_E_PATH_NOT_FOUND;
    case EINVAL:
      return ZYM_E_INVALID_ARGUMENT;
    case EFBIG:
      return ZYM_E_FILE_TOO_BIG;
    case ENOSPC:
      return ZYM_E_OUT_OF_SPACE;
    case ENAMETOOLONG:
      return ZYM_E_INVALID_SIZE;
    case ELOOP:
      return ZYM_E_INVALID_STATE;
    case EOVERFLOW:
      return ZYM_E_BUFFER_TOO_SMALL;
    case kSymbolNotFound:
      return ZYM_E_SYMBOL_NOT_FOUND;
    default:
      return error > kSymbolNotFound ? ZYM_E_PLATFORM
                                     : detail::Code(0x80060000U | static_cast<std::uint32_t>(error));
  }
}

}  // namespace zym
