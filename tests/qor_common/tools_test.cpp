#include "qor_common/tools.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "qor_common/unique_fd.h"
#include "support/child_process.h"
#include "support/temp_directory.h"
#include "zym/exception.h"

namespace qor::tools {
namespace {

using test_support::TempDirectory;

TEST(Tools, ThePlaceholderIsADeepNestedFile) {
  EXPECT_TRUE(IsDeepNestedFile("<PATH IS TOO LONG>"));
  EXPECT_TRUE(IsDeepNestedFile(u"<PATH IS TOO LONG>"));
}

TEST(Tools, APathThatMerelyStartsWithThePlaceholderIsNoDeepNestedFile) {
  for (const std::string_view path :
       {"<PATH IS TOO LONG>/a", "<PATH IS TOO LONG> ", "<PATH IS TOO LONG", "", "/a"})
    EXPECT_FALSE(IsDeepNestedFile(path)) << path;
  for (const std::u16string_view path : {u"<PATH IS TOO LONG>/a", u"<PATH IS TOO LONG", u""})
    EXPECT_FALSE(IsDeepNestedFile(path));
}

TEST(Tools, EveryRequestedBitMustBeAvailable) {
  for (std::uint32_t requested = 0; requested < 8; ++requested)
    for (std::uint32_t available = 0; available < 8; ++available)
      EXPECT_EQ(IsAccessOk(requested, available), (requested | available) == available)
          << requested << " of " << available;
}

TEST(DescriptorPath, IsThePathOfTheOpenFile) {
  const TempDirectory directory;
  test_support::WriteTextFile(directory / "file", "");
  const UniqueFd file(::open((directory / "file").c_str(), O_RDONLY | O_CLOEXEC));
  NativePath path;
  ASSERT_EQ(GetDescriptorPath(file.Get(), path), zym::ZYM_OK);
  EXPECT_EQ(path, directory / "file");
  ::unlink((directory / "file").c_str());
  ASSERT_EQ(GetDescriptorPath(file.Get(), path), zym::ZYM_OK);
  EXPECT_EQ(path, directory / "file (deleted)");
}

TEST(DescriptorPath, OfADescriptorThatIsNotOpenIsLeftAlone) {
  NativePath path = "before";
  EXPECT_EQ(GetDescriptorPath(-1, path), zym::ZYM_E_FILE_NOT_FOUND);
  EXPECT_EQ(path, "before");
}

TEST(DescriptorPath, BeyondOnePageIsThePlaceholder) {
  const TempDirectory directory;
  UniqueFd deep(::open(directory.Path().c_str(), O_DIRECTORY | O_CLOEXEC));
  const std::string name(200, 'd');
  for (int depth = 0; depth < 25; ++depth) {
    ASSERT_EQ(::mkdirat(deep.Get(), name.c_str(), 0755), 0);
    deep.Reset(::openat(deep.Get(), name.c_str(), O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(deep);
    NativePath path;
    ASSERT_EQ(GetDescriptorPath(deep.Get(), path), zym::ZYM_OK);
    const std::size_t whole =
        directory.Path().size() + static_cast<std::size_t>(depth + 1) * (name.size() + 1);
    if (whole < 4096)
      EXPECT_EQ(path.size(), whole);
    else
      EXPECT_TRUE(IsDeepNestedFile(path)) << path.size();
  }
}

TEST(Realpath, FollowsLinks) {
  const TempDirectory directory;
  test_support::WriteTextFile(directory / "file", "");
  ASSERT_EQ(::symlink("file", (directory / "link").c_str()), 0);
  EXPECT_EQ(Realpath(directory / "./link"), directory / "file");
}

TEST(Realpath, ThrowsForAMissingFile) {
  try {
    Realpath("/none/of/this");
    FAIL() << "no exception";
  } catch (const zym::SystemException& e) {
    EXPECT_EQ(e.Result(), zym::ZYM_E_FILE_NOT_FOUND);
  }
}

}  // namespace
}  // namespace qor::tools
