#include "qor_common/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace qor {
namespace {

UniqueFd OpenNull() {
  return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

bool IsOpen(int fd) {
  return ::fcntl(fd, F_GETFD) >= 0;
}

TEST(UniqueFd, ClosesAtTheEnd) {
  int fd = -1;
  {
    const UniqueFd owner = OpenNull();
    fd = owner.Get();
    ASSERT_TRUE(IsOpen(fd));
  }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(UniqueFd, AMoveLeavesTheSourceEmpty) {
  UniqueFd first = OpenNull();
  const int fd = first.Get();
  const UniqueFd second = std::move(first);
  EXPECT_FALSE(first);
  EXPECT_EQ(second.Get(), fd);
  EXPECT_TRUE(IsOpen(fd));
}

TEST(UniqueFd, AssignmentClosesWhatWasHeld) {
  UniqueFd owner = OpenNull();
  const int old = owner.Get();
  UniqueFd other = OpenNull();
  const int fd = other.Get();
  owner = std::move(other);
  EXPECT_FALSE(IsOpen(old));
  EXPECT_EQ(owner.Get(), fd);
  EXPECT_TRUE(IsOpen(fd));
}

TEST(UniqueFd, AssignmentToItselfKeepsTheDescriptor) {
  UniqueFd owner = OpenNull();
  UniqueFd& same = owner;
  owner = std::move(same);
  EXPECT_TRUE(owner);
  EXPECT_TRUE(IsOpen(owner.Get()));
}

TEST(UniqueFd, ReleaseHandsTheDescriptorOver) {
  int fd = -1;
  {
    UniqueFd owner = OpenNull();
    fd = owner.Release();
    EXPECT_FALSE(owner);
  }
  EXPECT_TRUE(IsOpen(fd));
  ::close(fd);
}

TEST(UniqueFd, ResetKeepsErrno) {
  UniqueFd owner = OpenNull();
  ::close(owner.Get());  // so that the close in Reset fails
  errno = EXDEV;
  owner.Reset();
  EXPECT_EQ(errno, EXDEV);
}

TEST(UniqueFd, DescriptorZeroIsADescriptor) {
  UniqueFd owner(0);
  EXPECT_TRUE(owner);
  EXPECT_EQ(owner.Release(), 0);
}

}  // namespace
}  // namespace qor
