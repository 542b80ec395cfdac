// Files that are removed with their stream.
#include "qor_common/file_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "process_manager/services/root_fd_provider.h"
#include "qor_common/mount_namespace.h"
#include "qor_common/tools.h"
#include "qor_common/unique_fd.h"
#include "support/child_process.h"
#include "support/rights.h"
#include "support/temp_directory.h"
#include "tests/qor_common/file_io_fixture.h"

namespace qor {
namespace {

using test_support::ForeignNamespace;
using test_support::WriteTextFile;
using zym::trace::kCall;
using zym::trace::kFailure;
using zym::trace::kWarning;
namespace io_property = zym::io_property;

TEST_F(FileIo, DeleteOnCloseRemovesTheFileInTheEnd) {
  IO& io = Open(O_RDONLY);
  ASSERT_EQ(MarkDeleteOnClose(io), zym::ZYM_OK);
  EXPECT_TRUE(Exists(m_path));
  m_io.Reset();
  EXPECT_FALSE(Exists(m_path));
  EXPECT_FALSE(IsOpen(m_fd));
  const std::string fd = std::to_string(m_fd);
  EXPECT_TRUE(m_tracer.Has(
      kCall, "result_t qor::IO::RemoveFile() const (path: " + m_path + ", fd: " + fd + ", dirfd: -1)"));
  EXPECT_TRUE(
      m_tracer.Has(kCall, "result_t qor::IO::RemoveFile() const (fd: " + fd + ", dirfd: (-1), nsId: "));
  EXPECT_TRUE(m_tracer.Has(kCall, ", filename: " + m_path.substr(m_path.rfind('/') + 1) + ")"));
}

TEST_F(FileIo, AMarkThatIsTakenBackKeepsTheFile) {
  IO& io = Open(O_RDONLY);
  ASSERT_EQ(MarkDeleteOnClose(io), zym::ZYM_OK);
  ASSERT_EQ(MarkDeleteOnClose(io, false), zym::ZYM_OK);
  m_io.Reset();
  EXPECT_TRUE(Exists(m_path));
}

TEST_F(FileIo, RemovedAtOnceIsNotRemovedTwice) {
  IO& io = Open(O_RDONLY);
  ASSERT_EQ(MarkDeleteOnClose(io), zym::ZYM_OK);
  EXPECT_EQ(Int(io, io_property::RemoveFile), 0);
  EXPECT_FALSE(Exists(m_path));
  WriteTextFile(m_path, "a new file of that name");
  m_io.Reset();
  EXPECT_TRUE(Exists(m_path)) << "the destructor leaves it alone";
}

TEST_F(FileIo, RemovingAnUnnamedFileFailsAndTheDestructorGoesOnClosing) {
  IO& io = Open(O_RDONLY);
  EXPECT_EQ(Int(io, io_property::RemoveFile), zym::ZYM_E_UNSPECIFIED) << "no path was kept";
  EXPECT_TRUE(m_tracer.Has(
      kFailure, "(!nativePath.empty()),(bool) failed: result = false Cannot remove unnamed file, "));
  EXPECT_TRUE(Exists(m_path));
  m_io.Reset();
  EXPECT_FALSE(IsOpen(m_fd));
}

TEST_F(FileIo, ARemovalThatFailsInTheDestructorIsTracedAndClosingGoesOn) {
  IO& io = Open(O_RDONLY);
  ASSERT_EQ(MarkDeleteOnClose(io), zym::ZYM_OK);
  ::unlink(m_path.c_str());
  m_io.Reset();
  EXPECT_TRUE(m_tracer.Has(kWarning, "Cannot remove '" + m_path + "': No such file or directory"));
  const std::string unexpected = m_tracer.Find("Unexpected exception in ~IO");
  EXPECT_NE(unexpected.find("Cannot remove file " + m_path), std::string::npos) << unexpected;
  EXPECT_FALSE(IsOpen(m_fd));
}

TEST_F(FileIo, ARemovalThatFailsTellsSoAndIsTriedAgainInTheEnd) {
  IO& io = Open(O_RDONLY);
  ASSERT_EQ(MarkDeleteOnClose(io), zym::ZYM_OK);
  const std::string moved = m_directory / "moved";
  ASSERT_EQ(::rename(m_path.c_str(), moved.c_str()), 0);
  EXPECT_EQ(Int(io, io_property::RemoveFile), zym::ZYM_E_UNSPECIFIED);
  ASSERT_EQ(::rename(moved.c_str(), m_path.c_str()), 0);
  m_io.Reset();
  EXPECT_FALSE(Exists(m_path));
}

TEST_F(FileIo, ADeepNestedFileCantBeRemoved) {
  UniqueFd directory(::open(m_directory.Path().c_str(), O_DIRECTORY | O_CLOEXEC));
  const std::string name(200, 'd');
  for (int depth = 0; depth < 25; ++depth) {
    ASSERT_EQ(::mkdirat(directory.Get(), name.c_str(), 0755), 0);
    directory.Reset(::openat(directory.Get(), name.c_str(), O_DIRECTORY | O_CLOEXEC));
  }
  const int fd = ::openat(directory.Get(), "file", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  m_io = zym::CreateObject<IO>(m_host.locator.get(), fd, -1, kNoMountNamespace, true);
  ASSERT_EQ(MarkDeleteOnClose(*m_io), zym::ZYM_OK);
  EXPECT_EQ(Int(*m_io, io_property::RemoveFile), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer.Has(kFailure, "(!qor::tools::IsDeepNestedFile(nativePath)),(bool) failed"));
  EXPECT_TRUE(m_tracer.Has(kFailure, "Cannot remove unnamed deep nested file, "));
  zym::types::string16_t path;
  EXPECT_EQ(m_io->GetPath(path), zym::ZYM_OK);
  EXPECT_TRUE(tools::IsDeepNestedFile(std::u16string_view(path)));
}

// With a descriptor of the directory the removal goes by the name in it, wherever it has moved.
TEST_F(FileIo, RemovesBelowTheDirectoryDescriptor) {
  const std::string sub = m_directory / "sub";
  ::mkdir(sub.c_str(), 0755);
  WriteTextFile(sub + "/file", "");
  const int directory = ::open(sub.c_str(), O_DIRECTORY | O_CLOEXEC);
  const int fd = ::open((sub + "/file").c_str(), O_RDONLY | O_CLOEXEC);
  m_io = zym::CreateObject<IO>(m_host.locator.get(), fd, directory, tools::GetOwnNamespaceId(), true);
  ASSERT_EQ(MarkDeleteOnClose(*m_io), zym::ZYM_OK);
  ASSERT_EQ(::rename(sub.c_str(), (m_directory / "moved").c_str()), 0);
  EXPECT_EQ(Int(*m_io, io_property::RemoveFile), 0);
  EXPECT_FALSE(Exists(m_directory / "moved/file"));
}

TEST_F(FileIo, RemovesAFileWhoseNameIsNoUtf8) {
  const std::string path = m_directory / "\xff\xfe";
  WriteTextFile(path, "");
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  m_io = zym::CreateObject<IO>(m_host.locator.get(), fd, -1, kNoMountNamespace, true);
  ASSERT_EQ(MarkDeleteOnClose(*m_io), zym::ZYM_OK);
  zym::types::string16_t text;
  EXPECT_EQ(m_io->GetPath(text), zym::ZYM_E_UNSPECIFIED) << "it has no UTF-16 text";
  m_io.Reset();
  EXPECT_FALSE(Exists(path));
}

class Descriptor : public zym::object::Ifaces<IDescriptor> {
 public:
  explicit Descriptor(UniqueFd fd) : m_fd(std::move(fd)) {}
  int Get() const override { return m_fd.Get(); }

 private:
  UniqueFd m_fd;
};

class RootFdProvider : public zym::object::Ifaces<IRootFdProvider> {
 public:
  explicit RootFdProvider(const ForeignNamespace* foreign) : m_foreign(foreign) {}
  zym::result_t GetNamespaceFd(std::uint64_t namespaceId, IDescriptor** descriptor) override {
    if (m_foreign == nullptr || namespaceId != m_foreign->Id()) return zym::ZYM_E_NOT_FOUND;
    *descriptor = zym::CreateObject<Descriptor>(m_foreign->Open()).Detach();
    return zym::ZYM_OK;
  }

 private:
  const ForeignNamespace* m_foreign;
};

TEST_F(FileIo, RemovesAFileOfAnotherMountNamespaceThere) {
  SKIP_IF(test_support::MissingMountRights());
  const ForeignNamespace foreign(m_directory.Path());
  WriteTextFile(foreign.Seen(m_path), "there");
  m_host.locator->Add(zym::CreateObject<RootFdProvider>(&foreign));
  const int directory = ::open(foreign.Seen(m_directory.Path()).c_str(), O_DIRECTORY | O_CLOEXEC);
  const int fd = ::openat(directory, "file", O_RDONLY | O_CLOEXEC);
  const std::size_t before = test_support::OpenDescriptors().size();
  m_io = zym::CreateObject<IO>(m_host.locator.get(), fd, directory, static_cast<ino_t>(foreign.Id()), true);
  ASSERT_EQ(MarkDeleteOnClose(*m_io), zym::ZYM_OK);
  EXPECT_EQ(Int(*m_io, io_property::RemoveFile), 0);
  EXPECT_FALSE(Exists(foreign.Seen(m_path)));
  EXPECT_TRUE(Exists(m_path)) << "the own one of that name stays";
  EXPECT_EQ(test_support::OpenDescriptors().size(), before) << "the namespace descriptor is closed";
  EXPECT_TRUE(m_tracer.Has(kCall, "nsid = " + std::to_string(foreign.Id()) + ", namespace fd = "));
  m_io.Reset();
  m_host.locator->Remove(IRootFdProvider::kIid);
}

TEST_F(FileIo, AnotherMountNamespaceNeedsTheHostsProvider) {
  const std::uint64_t id = tools::GetOwnNamespaceId() + 1;
  IO& io = Open(O_RDONLY, -1, id);
  ASSERT_EQ(MarkDeleteOnClose(io), zym::ZYM_OK);
  EXPECT_EQ(Int(io, io_property::RemoveFile), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer.Has(kFailure, "Cannot get IRootFdProvider interface"));
  m_host.locator->Add(zym::CreateObject<RootFdProvider>(nullptr));
  EXPECT_EQ(Int(io, io_property::RemoveFile), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_tracer.Has(kFailure, "Cannot get root directory fd for ns=" + std::to_string(id)));
  EXPECT_TRUE(Exists(m_path));
  m_io.Reset();
  m_host.locator->Remove(IRootFdProvider::kIid);
}

}  // namespace
}  // namespace qor
