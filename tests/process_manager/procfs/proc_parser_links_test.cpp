// The reader of /proc: links, mappings, descriptors and namespaces.
#include "process_manager/procfs/proc_parser.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/child_process.h"
#include "support/fresh_process.h"
#include "support/rights.h"
#include "support/temp_directory.h"
#include "tests/process_manager/procfs/proc_parser_fixture.h"

namespace qor::procfs {
namespace {

using test_support::Child;
using test_support::InFreshProcess;
using test_support::TempDirectory;
using ::testing::HasSubstr;

// What doesn't belong to one process lies where the test says.
class RootedParser : public ProcParser {
 public:
  RootedParser(zym::IServiceLocator* locator, NativePath root)
      : ProcParser(locator), m_root(std::move(root)) {}

  const NativePath& GetProcRoot() const override { return m_root; }

 private:
  NativePath m_root;
};

// --- links ---

TEST_F(ProcParserTest, ReadsLinksAsTheKernelGivesThem) {
  const TempDirectory directory;
  const Child child = Child::Forked([&] { return ::chdir(directory.Path().c_str()) == 0; });
  NativePath path;
  EXPECT_EQ(parser->GetWorkingDir(child.Pid(), path), zym::ZYM_OK);
  EXPECT_EQ(path, directory.Path());
  EXPECT_EQ(parser->GetProcLink(child.Pid(), "root", path), zym::ZYM_OK);
  EXPECT_EQ(path, "/");
  EXPECT_EQ(parser->GetImagePath(child.Pid(), path), zym::ZYM_OK);
  EXPECT_EQ(path, std::filesystem::read_symlink("/proc/self/exe").string());
}

TEST_F(ProcParserTest, KeepsWhatTheKernelPutsBehindTheNameOfADeletedFile) {
  TempDirectory directory;
  const std::string shell = directory.Place("sh");
  std::filesystem::copy_file("/bin/sh", shell);
  const Child child = Child::Shell(shell);
  ASSERT_EQ(::unlink(shell.c_str()), 0);
  NativePath path;
  EXPECT_EQ(parser->GetImagePath(child.Pid(), path), zym::ZYM_OK);
  EXPECT_EQ(path, shell + " (deleted)");
}

TEST_F(ProcParserTest, ALinkOfAProcessThatIsGoneIsNotFound) {
  NativePath path = "old";
  errno = 0;
  EXPECT_EQ(parser->GetProcLink(kNobody, "exe", path), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(errno, ENOENT) << "why it couldn't be read stays in errno";
  EXPECT_EQ(parser->GetImagePath(kNobody, path), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(parser->GetWorkingDir(kNobody, path), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(path, "old");
}

TEST_F(ProcParserTest, AZombieHasNoImageAndNoWorkingDirectory) {
  const Child child = Child::Forked();
  child.Kill();
  NativePath path;
  EXPECT_EQ(parser->GetImagePath(child.Pid(), path), zym::ZYM_E_NOT_FOUND);
  Stat stat;
  EXPECT_EQ(parser->GetStat(child.Pid(), stat), zym::ZYM_OK);
  EXPECT_EQ(stat.state, 'Z');
}

TEST_F(ProcParserTest, WhatIsThereAndIsNoLinkIsAnError) {
  NativePath path;
  errno = 0;
  EXPECT_EQ(parser->GetProcLink(static_cast<PidType>(::getpid()), "stat", path), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(parser->GetProcLink(static_cast<PidType>(::getpid()), "", path), zym::ZYM_E_UNSPECIFIED)
      << "the directory itself";
}

TEST(ProcParser, AnEmptyNameReadsThePathOfTheProcessItself) {
  WithFakeRoot([](FakeRoot& root) {
    ASSERT_EQ(::symlink("/some/where", root.tree.Place("77").c_str()), 0);
    NativePath path;
    EXPECT_EQ(root.parser->GetProcLink(77, "", path), zym::ZYM_OK);
    EXPECT_EQ(path, "/some/where");
  });
}

TEST(ProcParser, ALinkOf4095BytesIsTheLongestThatIsWhole) {
  WithFakeRoot([](FakeRoot& root) {
    const std::string target(PATH_MAX - 1, 'x');
    ASSERT_EQ(::symlink(target.c_str(), root.tree.Place("77/exe").c_str()), 0);
    NativePath path;
    EXPECT_EQ(root.parser->GetImagePath(77, path), zym::ZYM_OK);
    EXPECT_EQ(path, target);
  });
}

// --- maps, iomem ---

TEST_F(ProcParserTest, ReadsTheMappingsOfThisProcess) {
  Maps maps;
  ASSERT_EQ(parser->GetMaps(static_cast<PidType>(::getpid()), maps), zym::ZYM_OK);
  const auto address = reinterpret_cast<std::uint64_t>(&test_support::EnterPrivateMounts);
  const bool found = std::ranges::any_of(maps, [&](const auto& item) {
    return item.second->begin <= address && address < item.second->end && item.second->permissions == 5 &&
           item.second->path == std::filesystem::read_symlink("/proc/self/exe").string();
  });
  EXPECT_TRUE(found) << "the mapping that this test runs in";
}

TEST_F(ProcParserTest, MapsThatCannotBeOpenedAreAnError) {
  Maps maps;
  EXPECT_EQ(parser->GetMaps(kNobody, maps), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(Trace().Has(500, "Unable to open file /proc/4194305/maps"));
}

TEST_F(ProcParserTest, ReadsIomemBelowItsRoot) {
  const TempDirectory tree;
  tree.Write("iomem", "00001000-0009fbff : System RAM\nwords\n");
  IOMemMap map;
  ASSERT_EQ(Make<RootedParser>(tree.Path())->GetIOMemMap(map), zym::ZYM_OK);
  ASSERT_EQ(map.size(), 1U);
  EXPECT_EQ(map[0].last, 0x9fbffU);
  EXPECT_EQ(map[0].name, "System RAM");
}

TEST_F(ProcParserTest, IomemThatCannotBeOpenedIsAnError) {
  const TempDirectory tree;
  IOMemMap map;
  EXPECT_EQ(Make<RootedParser>(tree.Path() + "/")->GetIOMemMap(map), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(Trace().Has(300, "Unable to open " + tree.Path() + "/iomem"));
}

// --- descriptors ---

TEST_F(ProcParserTest, ListsTheDescriptorsOfAProcess) {
  const qor::UniqueFd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const Child child = Child::Forked();
  std::vector<unsigned int> fds = {12345};
  ASSERT_EQ(parser->GetDescriptors(child.Pid(), fds), zym::ZYM_OK);
  EXPECT_THAT(fds, ::testing::IsSupersetOf({12345U, static_cast<unsigned int>(file.Get())}));
}

TEST_F(ProcParserTest, DescriptorsOfAProcessThatIsGoneAreTracedAsAFailedCheck) {
  std::vector<unsigned int> fds;
  EXPECT_EQ(parser->GetDescriptors(kNobody, fds), zym::ZYM_E_UNSPECIFIED);
  EXPECT_THAT(Trace().Find("(dir)"), HasSubstr("(dir),(bool) failed: result = false Cannot open "
                                               "/proc/4194305/fd: No such file or directory"));
}

TEST_F(ProcParserTest, TellsWhatIsBehindADescriptor) {
  const TempDirectory directory;
  const std::string path = directory.Write("file", "x");
  int pipe[2];
  int sockets[2];
  ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
  const int fds[] = {::open(path.c_str(), O_RDONLY | O_CLOEXEC), ::open("/", O_RDONLY | O_CLOEXEC),
                     ::open("/dev/null", O_RDONLY | O_CLOEXEC), pipe[0], sockets[0]};
  const std::uint32_t types[] = {0, 1, 2, 4, 6};
  for (std::size_t i = 0; i < std::size(fds); ++i) {
    struct stat status {};
    ASSERT_EQ(::fstat(fds[i], &status), 0);
    DescriptorInfo info{.fileType = 99};
    ASSERT_EQ(
        parser->GetDescriptorInfo(static_cast<PidType>(::getpid()), static_cast<unsigned int>(fds[i]), info),
        zym::ZYM_OK);
    EXPECT_EQ(info.inode, status.st_ino) << i;
    EXPECT_EQ(info.fileType, types[i]) << i;
    ::close(fds[i]);
  }
  ::close(pipe[1]);
  ::close(sockets[1]);
}

TEST_F(ProcParserTest, ADescriptorThatIsNotOpenIsAnError) {
  DescriptorInfo info{.inode = 77};
  EXPECT_EQ(parser->GetDescriptorInfo(static_cast<PidType>(::getpid()), 987654, info),
            zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(parser->GetDescriptorInfo(kNobody, 0, info), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(info.inode, 77U);
}

TEST(ProcParser, ADescriptorWhosePathIsTooLongIsNotTakenForAnother) {
  InFreshProcess([] {
    const TempDirectory tree;
    tree.Write("77/fd/1", "");
    std::string root = tree.Path();
    root.append(PATH_MAX - 1 - root.size() - std::string("77/fd/1").size(), '/');
    ::setenv("VORN_HOST_PROCFS", root.c_str(), 1);
    Setting setting;
    DescriptorInfo info{.inode = 77};
    EXPECT_EQ(setting.parser->GetDescriptorInfo(77, 12, info), zym::ZYM_E_UNSPECIFIED);
    EXPECT_EQ(info.inode, 77U);
    EXPECT_EQ(setting.parser->GetDescriptorInfo(77, 1, info), zym::ZYM_OK) << "this one just fits";
  });
}

TEST(ProcParser, ABlockDeviceIsTold) {
  SKIP_IF(test_support::MissingRight(CAP_MKNOD, "to make a device"));
  WithFakeRoot([](FakeRoot& root) {
    ASSERT_EQ(::mknod(root.tree.Place("77/fd/3").c_str(), S_IFBLK | 0600, 0), 0);
    DescriptorInfo info;
    EXPECT_EQ(root.parser->GetDescriptorInfo(77, 3, info), zym::ZYM_OK);
    EXPECT_EQ(info.fileType, 3U);
  });
}

// --- the mount namespace ---

TEST_F(ProcParserTest, GivesTheMountNamespaceOfAProcess) {
  struct stat own {};
  ASSERT_EQ(::stat("/proc/self/ns/mnt", &own), 0);
  const Child child = Child::Forked();
  std::uint64_t id = 0;
  ASSERT_EQ(parser->GetMountNamespaceId(child.Pid(), id), zym::ZYM_OK);
  EXPECT_EQ(id, own.st_ino);
  EXPECT_TRUE(Trace().Has(800, "GetMountNamespaceId() <- 0x00000000 (No error) nsid=" + std::to_string(id)));
}

TEST_F(ProcParserTest, TellsAnotherMountNamespaceFromItsOwn) {
  SKIP_IF(test_support::MissingMountRights());
  const Child child = Child::Forked([] { return ::unshare(CLONE_NEWNS) == 0; });
  std::uint64_t own = 0;
  std::uint64_t other = 0;
  ASSERT_EQ(parser->GetMountNamespaceId(static_cast<PidType>(::getpid()), own), zym::ZYM_OK);
  ASSERT_EQ(parser->GetMountNamespaceId(child.Pid(), other), zym::ZYM_OK);
  EXPECT_NE(own, other);
}

TEST_F(ProcParserTest, TheNamespaceOfAProcessThatIsGoneIsUnknown) {
  std::uint64_t id = 0;
  EXPECT_EQ(parser->GetMountNamespaceId(kNobody, id), zym::ZYM_E_FILE_NOT_FOUND) << "by errno";
  EXPECT_EQ(id, kNoMountNamespace);
  EXPECT_TRUE(Trace().Has(800, "() <- 0x80010102 (File not found) nsid=18446744073709551615"));
}

TEST(ProcParser, AKernelWithoutNamespaceFilesHasTheNamespace0) {
  SKIP_IF(test_support::MissingMountRights());
  InFreshProcess([] {
    ASSERT_EQ(test_support::EnterPrivateMounts(), "");
    ASSERT_EQ(::mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    Setting setting;
    std::uint64_t id = 77;
    EXPECT_EQ(setting.parser->GetMountNamespaceId(1, id), zym::ZYM_OK);
    EXPECT_EQ(id, 0U);
    ASSERT_EQ(::umount("/proc"), 0);
    id = 77;
    EXPECT_EQ(setting.parser->GetMountNamespaceId(1, id), zym::ZYM_OK);
    EXPECT_EQ(id, 0U) << "it is asked once";
  });
}

TEST(ProcParser, AnotherFailureToReadTheOwnNamespaceIsTriedAgain) {
  SKIP_IF(test_support::MissingMountRights());
  InFreshProcess([] {
    ASSERT_EQ(test_support::EnterPrivateMounts(), "");
    ASSERT_EQ(::mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    ASSERT_TRUE(std::ofstream("/proc/self") << "no directory");
    Setting setting;
    std::uint64_t id = 77;
    const auto pid = static_cast<PidType>(::getpid());
    EXPECT_EQ(setting.parser->GetMountNamespaceId(pid, id), zym::ZYM_E_FILE_NOT_FOUND);
    EXPECT_EQ(id, kNoMountNamespace);
    ASSERT_EQ(::umount("/proc"), 0);
    EXPECT_EQ(setting.parser->GetMountNamespaceId(pid, id), zym::ZYM_OK);
    struct stat own {};
    ASSERT_EQ(::stat("/proc/self/ns/mnt", &own), 0);
    EXPECT_EQ(id, own.st_ino);
  });
}

}  // namespace
}  // namespace qor::procfs
