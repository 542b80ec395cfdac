#include "qor_common/process_root.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/rights.h"
#include "support/temp_directory.h"
#include "zym/utf.h"

namespace qor::tools {
namespace {

using test_support::ForeignNamespace;
using test_support::OpenDescriptors;
using test_support::RunInChild;
using test_support::TempDirectory;
using test_support::WriteTextFile;

constexpr int kDirectory = O_DIRECTORY | O_CLOEXEC;

bool IsSameFile(int a, int b) {
  struct stat first {};
  struct stat second {};
  return ::fstat(a, &first) == 0 && ::fstat(b, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

std::string Content(int fd) {
  char text[64];
  const ssize_t count = ::read(fd, text, sizeof(text));
  return {text, count > 0 ? static_cast<std::size_t>(count) : 0};
}

std::u16string Utf16(std::string_view text) {
  return std::u16string(std::u16string_view(*zym::Utf8ToUtf16(text)));
}

// A chain of directories with names of the given lengths below `base`; gives the last one, and its path from
// there.
class DeepDirectory {
 public:
  DeepDirectory(const std::string& base, const std::vector<std::size_t>& lengths)
      : m_last(::open(base.c_str(), kDirectory)) {
    for (const std::size_t length : lengths) {
      const std::string name(length, 'd');
      EXPECT_EQ(::mkdirat(m_last.Get(), name.c_str(), 0755), 0);
      m_last.Reset(::openat(m_last.Get(), name.c_str(), kDirectory));
      m_path += (m_path.empty() ? "" : "/") + name;
    }
  }
  [[nodiscard]] int Last() const { return m_last.Get(); }
  [[nodiscard]] const std::string& Path() const { return m_path; }

 private:
  UniqueFd m_last;
  std::string m_path;
};

class OpenLongPathTest : public testing::Test {
 protected:
  TempDirectory m_directory;
  UniqueFd m_start{::open(m_directory.Path().c_str(), kDirectory)};
};

TEST_F(OpenLongPathTest, APathOf5000BytesOpensInTwoSteps) {
  const DeepDirectory deep(m_directory.Path(), std::vector<std::size_t>(20, 249));
  ASSERT_EQ(deep.Path().size(), 4999U);
  ASSERT_EQ(::openat(m_start.Get(), deep.Path().c_str(), kDirectory), -1) << "the kernel takes no such path";
  const UniqueFd opened(OpenLongPath(m_start.Get(), deep.Path(), kDirectory));
  ASSERT_TRUE(opened);
  EXPECT_TRUE(IsSameFile(opened.Get(), deep.Last()));
}

TEST_F(OpenLongPathTest, AFailureInTheFirstStepLeavesNothingOpen) {
  std::string path;
  while (path.size() < 5000) path += std::string(249, 'x') + "/";
  const auto before = OpenDescriptors();
  errno = 0;
  EXPECT_EQ(OpenLongPath(m_start.Get(), path + "end", O_RDONLY), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(OpenLongPathTest, AFailureInALaterStepKeepsItsErrnoAndLeavesNothingOpen) {
  const DeepDirectory deep(m_directory.Path(), std::vector<std::size_t>(20, 249));
  const auto before = OpenDescriptors();
  errno = 0;
  EXPECT_EQ(OpenLongPath(m_start.Get(), deep.Path() + "/none", O_RDONLY), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(OpenLongPathTest, NeverClosesTheCallersDescriptor) {
  const DeepDirectory deep(m_directory.Path(), std::vector<std::size_t>(20, 249));
  const UniqueFd opened(OpenLongPath(m_start.Get(), deep.Path(), kDirectory));
  EXPECT_GE(::fcntl(m_start.Get(), F_GETFD), 0);
}

TEST_F(OpenLongPathTest, WalksFromTheWorkingDirectoryToo) {
  const DeepDirectory deep(m_directory.Path(), std::vector<std::size_t>(20, 249));
  const std::string path = m_directory.Path() + "/" + deep.Path();
  const UniqueFd opened(OpenLongPath(AT_FDCWD, path, kDirectory));
  ASSERT_TRUE(opened);
  EXPECT_TRUE(IsSameFile(opened.Get(), deep.Last()));
}

// 16 * 256 = 4096: the shortest path that is too long for one call, and the longest that isn't.
TEST_F(OpenLongPathTest, TakesPathsRoundTheLimit) {
  for (const std::size_t last : {253U, 254U, 255U}) {
    const TempDirectory base;
    std::vector<std::size_t> lengths(15, 255);
    lengths.push_back(last);
    const DeepDirectory deep(base.Path(), lengths);
    const UniqueFd start(::open(base.Path().c_str(), kDirectory));
    const UniqueFd opened(OpenLongPath(start.Get(), deep.Path(), kDirectory));
    ASSERT_TRUE(opened) << deep.Path().size();
    EXPECT_TRUE(IsSameFile(opened.Get(), deep.Last())) << deep.Path().size();
  }
}

// A piece that ends between two slashes must not leave an absolute path behind.
TEST_F(OpenLongPathTest, SlashesOnBothSidesOfACutStayBelowTheStart) {
  const DeepDirectory deep(m_directory.Path(), std::vector<std::size_t>(20, 249));
  for (std::size_t slashes = 2; slashes < 300; ++slashes) {
    std::string path = deep.Path();
    path.replace(path.find('/', 16 * 250 - 1), 1, std::string(slashes, '/'));
    const UniqueFd opened(OpenLongPath(m_start.Get(), path, kDirectory));
    ASSERT_TRUE(opened) << slashes;
    ASSERT_TRUE(IsSameFile(opened.Get(), deep.Last())) << slashes;
  }
}

TEST_F(OpenLongPathTest, TrailingSlashesMeanTheDirectory) {
  const DeepDirectory deep(m_directory.Path(), std::vector<std::size_t>(16, 250));
  const UniqueFd opened(OpenLongPath(m_start.Get(), deep.Path() + std::string(300, '/'), kDirectory));
  ASSERT_TRUE(opened);
  EXPECT_TRUE(IsSameFile(opened.Get(), deep.Last()));
}

TEST_F(OpenLongPathTest, ANameThatNoDirectoryHasIsTooLong) {
  errno = 0;
  EXPECT_EQ(OpenLongPath(m_start.Get(), std::string(5000, 'x'), O_RDONLY), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(OpenLongPath(AT_FDCWD, "/" + std::string(5000, 'x'), O_RDONLY), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(OpenLongPathTest, APathWithANulOpensNothing) {
  WriteTextFile(m_directory / "file", "");
  errno = 0;
  EXPECT_EQ(OpenLongPath(m_start.Get(), std::string_view("file\0x", 6), O_RDONLY), -1);
  EXPECT_EQ(errno, EINVAL);
}

// --- another process's files ---

class ProcessRoot : public testing::Test {
 protected:
  void SetUp() override { SKIP_IF(test_support::MissingMountRights()); }
  TempDirectory m_directory;
  UniqueFd m_dirFd;
  UniqueFd m_fileFd;
};

TEST_F(ProcessRoot, OpensTheFileThatTheProcessSees) {
  WriteTextFile(m_directory / "image", "here");
  const ForeignNamespace foreign(m_directory.Path());
  WriteTextFile(foreign.Seen(m_directory / "image"), "there");
  const auto pid = static_cast<PidType>(foreign.Pid());
  ASSERT_EQ(OpenFileOfPath(pid, Utf16(m_directory / "image"), m_dirFd, m_fileFd), zym::ZYM_OK);
  EXPECT_EQ(Content(m_fileFd.Get()), "there");
  EXPECT_EQ(::fcntl(m_fileFd.Get(), F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(::fcntl(m_fileFd.Get(), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(::fcntl(m_dirFd.Get(), F_GETFD), FD_CLOEXEC);
  const UniqueFd again(::openat(m_dirFd.Get(), "image", O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(IsSameFile(again.Get(), m_fileFd.Get())) << "the directory is the file's";
}

TEST_F(ProcessRoot, ARelativePathStartsFromTheWorkingDirectory) {
  EXPECT_EQ(RunInChild([this]() -> std::string {
              ::mkdir((m_directory / "sub").c_str(), 0755);
              WriteTextFile(m_directory / "sub/file", "below");
              WriteTextFile(m_directory / "file", "top");
              if (::chdir(m_directory.Path().c_str()) != 0) return "chdir";
              const auto self = static_cast<PidType>(::getpid());
              if (OpenFileOfPath(self, u"sub/file", m_dirFd, m_fileFd) != zym::ZYM_OK) return "sub/file";
              if (Content(m_fileFd.Get()) != "below") return "content of sub/file";
              if (OpenFileOfPath(self, u"file", m_dirFd, m_fileFd) != zym::ZYM_OK) return "file";
              return Content(m_fileFd.Get()) == "top" ? "" : "content of file";
            }),
            "");
}

// In a process with another root; a second slash in front must not lead out of it.
TEST_F(ProcessRoot, LeadingSlashesNeverLeaveTheProcessesRoot) {
  const ForeignNamespace foreign(m_directory.Path());
  ::mkdir(foreign.Seen(m_directory / "dir").c_str(), 0755);
  WriteTextFile(foreign.Seen(m_directory / "dir/file"), "there");
  ::mkdir((m_directory / "dir").c_str(), 0755);
  WriteTextFile(m_directory / "dir/file", "here");
  const auto pid = static_cast<PidType>(foreign.Pid());
  ASSERT_EQ(OpenFileOfPath(pid, Utf16("//" + (m_directory / "dir/file")), m_dirFd, m_fileFd), zym::ZYM_OK);
  EXPECT_EQ(Content(m_fileFd.Get()), "there");
}

TEST_F(ProcessRoot, AFileInTheRootHasTheRootAsItsDirectory) {
  ASSERT_EQ(OpenDirectoryOfPath(static_cast<PidType>(::getpid()), u"/file", m_dirFd), zym::ZYM_OK);
  const UniqueFd root(::open("/", kDirectory));
  EXPECT_TRUE(IsSameFile(m_dirFd.Get(), root.Get()));
}

TEST_F(ProcessRoot, CutsTrailingSlashesOfTheDirectoryPart) {
  const std::string path = m_directory.Path() + "///file";
  ASSERT_EQ(OpenDirectoryOfPath(static_cast<PidType>(::getpid()), Utf16(path), m_dirFd), zym::ZYM_OK);
  const UniqueFd directory(::open(m_directory.Path().c_str(), kDirectory));
  EXPECT_TRUE(IsSameFile(m_dirFd.Get(), directory.Get()));
}

TEST_F(ProcessRoot, ReplacesAndClosesWhatTheDescriptorsHeld) {
  WriteTextFile(m_directory / "file", "");
  m_dirFd.Reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  m_fileFd.Reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const std::size_t before = OpenDescriptors().size();
  ASSERT_EQ(OpenFileOfPath(static_cast<PidType>(::getpid()), Utf16(m_directory / "file"), m_dirFd, m_fileFd),
            zym::ZYM_OK);
  EXPECT_EQ(OpenDescriptors().size(), before);
}

TEST_F(ProcessRoot, AProcessThatIsGoneLeavesTheDescriptorAlone) {
  m_dirFd.Reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const int held = m_dirFd.Get();
  EXPECT_EQ(OpenDirectoryOfPath(0x7fffffff, u"/tmp/file", m_dirFd), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(m_dirFd.Get(), held);
}

TEST_F(ProcessRoot, AMissingDirectoryLeavesNoDescriptor) {
  m_dirFd.Reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(OpenDirectoryOfPath(static_cast<PidType>(::getpid()), u"/none/file", m_dirFd),
            zym::ZYM_E_UNSPECIFIED);
  EXPECT_FALSE(m_dirFd);
}

TEST_F(ProcessRoot, AMissingFileStillGivesItsDirectory) {
  EXPECT_EQ(OpenFileOfPath(static_cast<PidType>(::getpid()), u"/tmp/none-of-this-name", m_dirFd, m_fileFd),
            zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_dirFd);
  EXPECT_FALSE(m_fileFd);
}

TEST_F(ProcessRoot, APathThatIsNoTextOpensNothing) {
  const char16_t lone[] = {u'/', 0xd800, u'/', u'a'};
  EXPECT_EQ(OpenDirectoryOfPath(static_cast<PidType>(::getpid()), {lone, 4}, m_dirFd),
            zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(OpenFileOfPath(static_cast<PidType>(::getpid()), {lone, 4}, m_dirFd, m_fileFd),
            zym::ZYM_E_UNSPECIFIED);
}

// --- paths through a root ---

TEST(ProcRootPath, IsRecognisedAsAWhole) {
  for (const char* const path : {"/proc/1/root/", "/proc/1/root/bin/sh", "/proc/0123456789/root/a\nb"})
    EXPECT_TRUE(IsProcRootPath(path)) << path;
  for (const char* const path :
       {"", "/", "/proc", "/proc/1", "/proc/1/root", "/proc//root/a", "/proc/self/root/a", "/proc/1a/root/a",
        "/proc/-1/root/a", "/proc/1/rootfs/a", "/proc/1/cwd/a", " /proc/1/root/a", "x/proc/1/root/a",
        "/proc/1//root/a", "/PROC/1/root/a"})
    EXPECT_FALSE(IsProcRootPath(path)) << path;
}

TEST(ProcRootPath, GivesWhatFollowsTheRoot) {
  EXPECT_EQ(StripProcRoot("/proc/12/root/usr/bin/true"), "/usr/bin/true");
  EXPECT_EQ(StripProcRoot("/proc/12/root/"), "/");
  EXPECT_EQ(StripProcRoot("/proc/1/root/proc/2/root/x"), "/proc/2/root/x");
}

TEST(ProcRootPath, GivesAnEmptyTextWhenNothingFollows) {
  for (const char* const path : {"/proc/12/root", "/proc/12/", "/bin/sh", ""})
    EXPECT_EQ(StripProcRoot(path), "") << path;
}

// Meant: the text is read as one word.
TEST(ProcRootPath, WhatFollowsEndsAtWhiteSpaceAndAt4096Bytes) {
  EXPECT_EQ(StripProcRoot("/proc/12/root/a dir/file"), "/a");
  EXPECT_EQ(StripProcRoot("/proc/12/root/a\tb"), "/a");
  const std::string longest = "/" + std::string(4095, 'x');
  EXPECT_EQ(StripProcRoot("/proc/12/root" + longest), longest);
  EXPECT_EQ(StripProcRoot("/proc/12/root" + longest + "y"), longest);
}

}  // namespace
}  // namespace qor::tools
