#include "zym/result.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <string_view>

namespace zym {
namespace {

TEST(ResultText, NamesCommonAndPlatformCodes) {
  EXPECT_EQ(ResultText(0), "No error");
  EXPECT_EQ(ResultText(1), "False");
  EXPECT_EQ(ResultText(ZYM_E_INVALID_ARGUMENT), "Invalid argument");
  EXPECT_EQ(ResultText(detail::Code(0x80000313)), "DateTime syntax error");
  EXPECT_EQ(ResultText(ZYM_E_PLATFORM), "Unspecified platform error");
  EXPECT_EQ(ResultText(detail::Code(0x80010118)), "System shutdown in progress");
}

// Every code that has a text, and none beside: what isn't listed between the first and the last of a table is
// a hole.
TEST(ResultText, NamesEveryCodeOfBothTablesAndNoOther) {
  const std::map<std::uint32_t, std::string_view> texts = {
      {0x00000000U, "No error"},
      {0x00000001U, "False"},
      {0x80000001U, "Interface not supported"},
      {0x80000040U, "Unexpected"},
      {0x80000041U, "Out of memory"},
      {0x80000042U, "Not supported"},
      {0x80000043U, "Not implemented"},
      {0x80000044U, "Buffer too small"},
      {0x80000045U, "Access denied"},
      {0x80000046U, "Invalid argument"},
      {0x80000047U, "Bad cast"},
      {0x8000004aU, "Not matched"},
      {0x8000004bU, "Unspecified error"},
      {0x8000004cU, "Not found"},
      {0x8000004dU, "Found"},
      {0x8000004fU, "Locked"},
      {0x80000050U, "Not locked"},
      {0x80000051U, "Operation cancelled"},
      {0x80000057U, "Method not found"},
      {0x80000058U, "Stack is empty"},
      {0x80000059U, "Media error"},
      {0x8000005aU, "Invalid signature"},
      {0x8000005bU, "Invalid version"},
      {0x8000005cU, "Invalid size"},
      {0x8000005dU, "Invalid type"},
      {0x8000005eU, "Out of range"},
      {0x80000062U, "Out of space"},
      {0x80000063U, "Not ready"},
      {0x80000064U, "Less than"},
      {0x80000065U, "More than"},
      {0x80000066U, "Prohibited"},
      {0x80000067U, "Already done"},
      {0x80000068U, "Need reboot"},
      {0x80000069U, "Bases corrupted"},
      {0x8000006aU, "Invalid state"},
      {0x8000006bU, "Not initialized"},
      {0x8000006cU, "Insufficient resources"},
      {0x80000071U, "Invalid result"},
      {0x80000072U, "Unknown exception"},
      {0x80000076U, "Meta information not found"},
      {0x80000077U, "Numerical type overflow"},
      {0x80000078U, "File is too big"},
      {0x80000079U, "Trace level ok"},
      {0x8000007aU, "Trace level prohibited"},
      {0x80000100U, "Class not found"},
      {0x80000101U, "Settings are required"},
      {0x80000102U, "Unexpected settings"},
      {0x80000103U, "Wrong settings type"},
      {0x80000104U, "Wrong settings revision"},
      {0x80000105U, "Settings not found"},
      {0x80000106U, "Object is untrusted"},
      {0x80000150U, "No current exception"},
      {0x80000151U, "Exception has no result code"},
      {0x80000152U, "Exception with successful result code"},
      {0x80000180U, "Property not found"},
      {0x80000221U, "Operation timeout"},
      {0x80000300U, "Invalid symbol"},
      {0x80000301U, "Non dec symbol"},
      {0x80000302U, "Non hex symbol"},
      {0x80000303U, "Non base64 symbol"},
      {0x80000310U, "Syntax error"},
      {0x80000311U, "GUID syntax error"},
      {0x80000312U, "OID syntax error"},
      {0x80000313U, "DateTime syntax error"},
      {0x80010100U, "Unspecified platform error"},
      {0x80010101U, "Invalid handle"},
      {0x80010102U, "File not found"},
      {0x80010103U, "Path not found"},
      {0x80010104U, "Sharing violation"},
      {0x80010105U, "Already exists"},
      {0x80010106U, "Wait abandoned"},
      {0x80010107U, "Symbol not found"},
      {0x80010108U, "Sxs is incorrect"},
      {0x80010109U, "Invalid path name"},
      {0x80010110U, "Cannot open an anonymous level security token"},
      {0x80010111U, "Password is invalid"},
      {0x80010112U, "Module not found"},
      {0x80010113U, "System image bad signature"},
      {0x80010114U, "Cloud file request aborted"},
      {0x80010115U, "Memory mapping failed"},
      {0x80010116U, "Network error"},
      {0x80010117U, "System image bad format"},
      {0x80010118U, "System shutdown in progress"},
  };
  for (std::uint32_t facility : {0x80000000U, 0x80010000U})
    for (std::uint32_t code = facility; code < facility + 0x400; ++code) {
      const auto found = texts.find(code);
      EXPECT_EQ(ResultText(detail::Code(code)), found != texts.end() ? found->second : "Unknown result code")
          << std::hex << code;
    }
}

TEST(ResultText, SaysUnknownOfHolesInTheTables) {
  for (const std::uint32_t code :
       {0x8000004eU, 0x80000110U, 0x8001010aU, 0x8001010fU, 0x80010119U, 0x00000002U})
    EXPECT_EQ(ResultText(detail::Code(code)), "Unknown result code") << std::hex << code;
}

TEST(ResultText, SaysUnknownOfRawErrnosAndOtherFacilities) {
  EXPECT_EQ(ResultText(detail::Code(0x80060002)), "Unknown result code");
  EXPECT_EQ(ResultText(detail::Code(0x80020001)), "Unknown result code");
  EXPECT_EQ(ResultText(-1), "Unknown result code");
}

TEST(Succeeded, TakesZeroAndPositiveForSuccess) {
  EXPECT_TRUE(ZYM_SUCCEEDED(ZYM_OK));
  EXPECT_TRUE(ZYM_SUCCEEDED(ZYM_FALSE));
  EXPECT_FALSE(ZYM_SUCCEEDED(ZYM_E_UNSPECIFIED));
}

TEST(ErrnoToResult, TranslatesByTable) {
  const struct {
    int error;
    std::uint32_t code;
  } cases[] = {
      {0, 0},
      {EPERM, 0x80000045},
      {EACCES, 0x80000045},
      {ENOENT, 0x80010102},
      {EIO, 0x80000059},
      {ENOEXEC, 0x80010117},
      {EBADF, 0x80010101},
      {ENOMEM, 0x80000041},
      {EBUSY, 0x8000004f},
      {ETXTBSY, 0x8000004f},
      {EEXIST, 0x80010105},
      {ENOTDIR, 0x80010103},
      {EINVAL, 0x80000046},
      {EFBIG, 0x80000078},
      {ENOSPC, 0x80000062},
      {ENAMETOOLONG, 0x8000005c},
      {ELOOP, 0x8000006a},
      {EOVERFLOW, 0x80000044},
      {65535, 0x80010107},
      {65536, 0x80010100},
  };
  for (const auto& [error, code] : cases) EXPECT_EQ(ErrnoToResult(error), detail::Code(code)) << error;
}

TEST(ErrnoToResult, CarriesAnyOtherErrnoInItsOwnFacility) {
  EXPECT_EQ(ErrnoToResult(1000), detail::Code(0x800603e8));
  EXPECT_EQ(ErrnoToResult(ESRCH), detail::Code(0x80060003));
}

}  // namespace
}  // namespace zym
