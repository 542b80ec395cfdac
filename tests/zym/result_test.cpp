#include "zym/result.h"

#include <gtest/gtest.h>

#include <cerrno>

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
