#include "qor_common/file_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "qor_common/mount_namespace.h"
#include "qor_common/tools.h"
#include "qor_common/unique_fd.h"
#include "support/child_process.h"
#include "support/temp_directory.h"
#include "tests/qor_common/file_io_fixture.h"
#include "zym/exception.h"

namespace qor {
namespace {

using test_support::RunInChild;
using zym::trace::kCall;
using zym::trace::kFailure;
using zym::types::variant_t;
namespace io_property = zym::io_property;
namespace mode = zym::io_access_mode;

// --- the object ---

TEST_F(FileIo, GivesItsInterfacesById) {
  Open(O_RDONLY);
  const auto has = [this](zym::iid_t iid) {
    void* found = nullptr;
    if (!ZYM_SUCCEEDED(m_io->QueryInterface(iid, &found)) || found == nullptr) return false;
    m_io->Release();
    return true;
  };
  EXPECT_TRUE(has(0x0000000a));
  EXPECT_TRUE(has(0x3a4e9ae4));
  EXPECT_TRUE(has(zym::IAccessModeController::kIid));
  EXPECT_TRUE(has(zym::IFileDescriptor::kIid));
  EXPECT_TRUE(has(IFileDescriptor::kIid));
  EXPECT_FALSE(has(0x12345678));
  void* primary = nullptr;
  ASSERT_EQ(m_io->QueryInterface(zym::IObject::kIid, &primary), zym::ZYM_OK);
  EXPECT_EQ(primary, static_cast<zym::IIO*>(m_io.get())) << "id 0 is the stream";
  m_io->Release();
}

TEST_F(FileIo, TheFileDescriptorIsOneObjectUnderBothOfItsIds) {
  Open(O_RDONLY);
  zym::intrusive_ptr<IFileDescriptor> own;
  zym::intrusive_ptr<zym::IFileDescriptor> general;
  ASSERT_EQ(zym::QueryInterface(m_io, own.Ref()), zym::ZYM_OK);
  ASSERT_EQ(zym::QueryInterface(m_io, general.Ref()), zym::ZYM_OK);
  EXPECT_EQ(static_cast<zym::IFileDescriptor*>(own.get()), general.get());
  int fd = -1;
  EXPECT_EQ(own->GetDescriptor(fd), zym::ZYM_OK);
  EXPECT_EQ(fd, m_fd);
}

TEST_F(FileIo, AutoCloseClosesBothDescriptors) {
  const int directory = ::open(m_directory.Path().c_str(), O_DIRECTORY | O_CLOEXEC);
  Open(O_RDONLY, directory);
  m_io.Reset();
  EXPECT_FALSE(IsOpen(m_fd));
  EXPECT_FALSE(IsOpen(directory));
  EXPECT_TRUE(m_tracer.Has(kCall, "virtual qor::IO::~IO()"));
}

TEST_F(FileIo, WithoutAutoCloseTheDescriptorsStayOpen) {
  const UniqueFd file(::open(m_path.c_str(), O_RDONLY | O_CLOEXEC));
  const UniqueFd directory(::open(m_directory.Path().c_str(), O_DIRECTORY | O_CLOEXEC));
  m_io = zym::CreateObject<IO>(m_host.locator.get(), file.Get(), directory.Get(), kNoMountNamespace, false);
  m_io.Reset();
  EXPECT_TRUE(IsOpen(file.Get()));
  EXPECT_TRUE(IsOpen(directory.Get()));
}

TEST_F(FileIo, AFailedCloseIsTraced) {
  Open(O_RDONLY);
  ::close(m_fd);
  m_io.Reset();
  EXPECT_TRUE(m_tracer.Has(kFailure, " close: Bad file descriptor"));
}

TEST_F(FileIo, AConstructorThatThrowsLeavesTheDescriptorToTheCaller) {
  m_host.locator->Remove(zym::ITracer::kIid);
  const UniqueFd file(::open(m_path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_THROW(zym::CreateObject<IO>(m_host.locator.get(), file.Get(), -1, kNoMountNamespace, true),
               zym::GetInterfaceException);
  EXPECT_TRUE(IsOpen(file.Get()));
}

// --- the stream ---

TEST_F(FileIo, ReadsOnAtItsOwnOffset) {
  IO& io = Open(O_RDONLY);
  EXPECT_EQ(ReadText(io, 4), "0123");
  EXPECT_EQ(ReadText(io, 4), "4567");
  EXPECT_EQ(ReadText(io, 4), "89") << "what is left";
  EXPECT_EQ(ReadText(io, 4), "") << "the end";
  EXPECT_TRUE(m_tracer.Has(kCall, "Read 4 bytes"));
  EXPECT_TRUE(m_tracer.Has(kCall, "Read 0 bytes"));
}

TEST_F(FileIo, SeveralObjectsOverOneDescriptorDontDisturbEachOther) {
  IO& first = Open(O_RDONLY);
  const auto second = zym::CreateObject<IO>(m_host.locator.get(), m_fd, -1, kNoMountNamespace, false);
  EXPECT_EQ(ReadText(first, 4), "0123");
  EXPECT_EQ(ReadText(*second, 2), "01");
  EXPECT_EQ(ReadText(first, 2), "45");
  EXPECT_EQ(::lseek(m_fd, 0, SEEK_CUR), 0) << "nor the kernel's offset";
}

TEST_F(FileIo, TheOffsetBeginsAtZeroWhereverTheDescriptorStands) {
  IO& io = Open(O_RDONLY);
  ::lseek(m_fd, 5, SEEK_SET);
  EXPECT_EQ(ReadText(io, 1), "0");
}

TEST_F(FileIo, WritesAndReadsBack) {
  IO& io = Open(O_RDWR);
  std::uint32_t done = 0;
  ASSERT_EQ(io.Write("abc", 3, done), zym::ZYM_OK);
  EXPECT_EQ(done, 3U);
  EXPECT_TRUE(m_tracer.Has(kCall, "Written 3 bytes"));
  EXPECT_EQ(ReadText(io, 3), "345");
  EXPECT_EQ(io.Flush(), zym::ZYM_OK);
  EXPECT_EQ(test_support::ReadTextFile(m_path), "abc3456789");
}

TEST_F(FileIo, SeeksFromTheBeginningTheEndAndItsOwnPosition) {
  IO& io = Open(O_RDONLY);
  zym::file_size_t position = 0;
  ASSERT_EQ(io.Seek(zym::io_seek_method::kBegin, 3, &position), zym::ZYM_OK);
  EXPECT_EQ(position, 3U);
  EXPECT_EQ(ReadText(io, 2), "34");
  ASSERT_EQ(io.Seek(zym::io_seek_method::kCurrent, -1, &position), zym::ZYM_OK);
  EXPECT_EQ(position, 4U) << "behind what was read, not where lseek stood";
  ASSERT_EQ(io.Seek(zym::io_seek_method::kEnd, -1, nullptr), zym::ZYM_OK);
  EXPECT_EQ(ReadText(io, 2), "9");
  ASSERT_EQ(io.GetPos(position), zym::ZYM_OK);
  EXPECT_EQ(position, 10U);
  EXPECT_TRUE(m_tracer.Has(kCall, "New file offset: 3"));
  EXPECT_TRUE(m_tracer.Has(kCall, "Current file offset: 10"));
}

TEST_F(FileIo, ASeekThatFailsKeepsThePosition) {
  IO& io = Open(O_RDONLY);
  ASSERT_EQ(io.Seek(zym::io_seek_method::kBegin, 3, nullptr), zym::ZYM_OK);
  zym::file_size_t position = 77;
  EXPECT_EQ(io.Seek(zym::io_seek_method::kCurrent, -4, &position), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(io.Seek(zym::io_seek_method::kCurrent, INT64_MAX, &position), zym::ErrnoToResult(EOVERFLOW));
  EXPECT_EQ(io.Seek(static_cast<zym::io_seek_method::Type>(99), 0, &position), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(position, 77U);
  EXPECT_EQ(ReadText(io, 1), "3");
  EXPECT_TRUE(m_tracer.Has(kFailure, "lseek64: Invalid argument"));
}

TEST_F(FileIo, TellsAndSetsTheSize) {
  IO& io = Open(O_RDWR);
  zym::file_size_t size = 0;
  ASSERT_EQ(io.GetSize(size), zym::ZYM_OK);
  EXPECT_EQ(size, 10U);
  ASSERT_EQ(io.SetSize(4), zym::ZYM_OK);
  ASSERT_EQ(static_cast<zym::IFileDescriptor&>(io).GetSize(size), zym::ZYM_OK);
  EXPECT_EQ(size, 4U);
  EXPECT_EQ(io.SetSize(UINT64_MAX), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_TRUE(m_tracer.Has(kCall, "Current file size: 10"));
  EXPECT_TRUE(m_tracer.Has(kCall, "New file size: 4"));
  EXPECT_TRUE(m_tracer.Has(kFailure, "ftruncate: Invalid argument"));
}

TEST_F(FileIo, AFailedCallGivesItsErrnoAndTracesIt) {
  IO& io = Open(O_WRONLY);
  char text[4];
  std::uint32_t done = 7;
  EXPECT_EQ(io.Read(text, 4, done), zym::ZYM_E_INVALID_HANDLE);
  EXPECT_EQ(done, 7U);
  EXPECT_TRUE(m_tracer.Has(kFailure, "read: Bad file descriptor"));
  IO& reader = Open(O_RDONLY);
  EXPECT_EQ(reader.Write("x", 1, done), zym::ZYM_E_INVALID_HANDLE);
  EXPECT_TRUE(m_tracer.Has(kFailure, "write: Bad file descriptor"));
}

TEST_F(FileIo, ACallOnADescriptorClosedUnderfootGivesItsErrno) {
  EXPECT_EQ(RunInChild([this]() -> std::string {
              IO& io = Open(O_RDWR);
              ::close(m_fd);
              zym::file_size_t size = 0;
              zym::datetime_t time = 0;
              zym::types::string16_t path;
              if (io.GetSize(size) != zym::ZYM_E_INVALID_HANDLE || !m_tracer.Has("fstat64: "))
                return "GetSize";
              if (io.Flush() != zym::ZYM_E_INVALID_HANDLE || !m_tracer.Has("fsync: ")) return "Flush";
              if (io.SetLastWriteTime(zym::datetime::Now()) != zym::ZYM_E_INVALID_HANDLE)
                return "SetLastWriteTime";
              if (!m_tracer.Has(kFailure, "futimens: Bad file descriptor")) return "futimens";
              if (io.GetLastAccessTime(time) != zym::ZYM_E_INVALID_HANDLE) return "GetLastAccessTime";
              if (io.GetPath(path) != zym::ZYM_E_FILE_NOT_FOUND) return "GetPath";
              if (!m_tracer.Has(kFailure, "(GetPathImpl(nativePath)),(ZYM_SUCCEEDED(_result)) failed"))
                return "trace";
              if (MarkDeleteOnClose(io) != zym::ZYM_E_FILE_NOT_FOUND) return "Put";
              m_io.Reset();
              return {};
            }),
            "");
}

// --- the access mode ---

TEST_F(FileIo, BeginsWithTheModeOfTheDescriptor) {
  const struct {
    int flags;
    mode::Type expected;
  } cases[] = {
      {O_RDONLY, mode::kRead}, {O_WRONLY, mode::kWrite}, {O_RDWR, mode::kRead | mode::kWrite}, {O_PATH, 0}};
  for (const auto& [flags, expected] : cases) {
    IO& io = Open(flags);
    mode::Type current = 99;
    EXPECT_EQ(io.GetAccessMode(current), zym::ZYM_OK);
    EXPECT_EQ(current, expected) << flags;
    EXPECT_EQ(io.GetAvailableAccessMode(current), zym::ZYM_OK);
    EXPECT_EQ(current, expected) << flags;
  }
}

TEST_F(FileIo, AskingForAnAvailableModeNeverTouchesTheDescriptor) {
  IO& io = Open(O_RDWR);
  // A flag of the open file itself, which another opening of the same file would not have.
  ASSERT_EQ(::fcntl(m_fd, F_SETFL, O_APPEND), 0);
  for (const mode::Type wanted : {mode::kRead, mode::kWrite, mode::kRead | mode::kWrite, 0U}) {
    ASSERT_EQ(io.ChangeAccessMode(wanted), zym::ZYM_OK);
    mode::Type current = 99;
    EXPECT_EQ(io.GetAccessMode(current), zym::ZYM_OK);
    EXPECT_EQ(current, wanted);
    EXPECT_EQ(io.GetAvailableAccessMode(current), zym::ZYM_OK);
    EXPECT_EQ(current, mode::kRead | mode::kWrite);
  }
  EXPECT_NE(::fcntl(m_fd, F_GETFL) & O_APPEND, 0) << "the same open file as before";
}

TEST_F(FileIo, AChangeFromReadToReadAndWriteKeepsNumberAndPosition) {
  IO& io = Open(O_RDONLY);
  ::lseek(m_fd, 7, SEEK_SET);
  EXPECT_EQ(ReadText(io, 2), "01");
  const auto before = test_support::OpenDescriptors();
  ASSERT_EQ(io.ChangeAccessMode(mode::kRead | mode::kWrite), zym::ZYM_OK);
  EXPECT_EQ(test_support::OpenDescriptors(), before);
  EXPECT_EQ(Int(io, io_property::NativeDescriptor), m_fd);
  EXPECT_EQ(::lseek(m_fd, 0, SEEK_CUR), 7);
  EXPECT_EQ(::fcntl(m_fd, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(::fcntl(m_fd, F_GETFL) & O_ACCMODE, O_RDWR);
  std::uint32_t done = 0;
  ASSERT_EQ(io.Write("x", 1, done), zym::ZYM_OK);
  EXPECT_EQ(test_support::ReadTextFile(m_path), "01x3456789");
  EXPECT_TRUE(m_tracer.Has(kCall, ", mode:3 (fd: " + std::to_string(m_fd)));
}

TEST_F(FileIo, AChangeToWriteOnlyGivesReadingUp) {
  IO& io = Open(O_RDONLY);
  ASSERT_EQ(io.ChangeAccessMode(mode::kWrite), zym::ZYM_OK);
  mode::Type available = 0;
  EXPECT_EQ(io.GetAvailableAccessMode(available), zym::ZYM_OK);
  EXPECT_EQ(available, mode::kWrite);
  EXPECT_EQ(::fcntl(m_fd, F_GETFL) & O_ACCMODE, O_WRONLY);
}

TEST_F(FileIo, AskingForDeleteAfterwardsFailsAndLeavesTheModeAlone) {
  IO& io = Open(O_RDONLY);
  EXPECT_EQ(io.ChangeAccessMode(mode::kRead | mode::kWrite | mode::kDelete), zym::ZYM_E_SHARING_VIOLATION);
  EXPECT_EQ(io.ChangeAccessMode(mode::kDelete), zym::ZYM_E_SHARING_VIOLATION);
  mode::Type current = 99;
  EXPECT_EQ(io.GetAccessMode(current), zym::ZYM_OK);
  EXPECT_EQ(current, mode::kRead);
  EXPECT_EQ(::fcntl(m_fd, F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_TRUE(m_tracer.Has(kFailure, "(tools::IsAccessOk(requestedDelete, availableDelete)),(bool) failed"));
  EXPECT_TRUE(m_tracer.Has(kFailure, "Change denied due to delete mode mismatch, "));
}

TEST_F(FileIo, DeleteThatWasThereFromTheBeginningIsKept) {
  const int fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
  m_io = zym::CreateObject<IO>(m_host.locator.get(), fd, -1, kNoMountNamespace, true,
                               mode::kRead | mode::kDelete);
  EXPECT_EQ(m_io->ChangeAccessMode(mode::kDelete), zym::ZYM_OK);
  EXPECT_EQ(m_io->ChangeAccessMode(mode::kRead | mode::kWrite), zym::ZYM_OK);
  mode::Type available = 0;
  EXPECT_EQ(m_io->GetAvailableAccessMode(available), zym::ZYM_OK);
  EXPECT_EQ(available, mode::kRead | mode::kWrite | mode::kDelete);
}

TEST_F(FileIo, AFileThatRunsIsLocked) {
  std::string program = m_directory / "program";
  EXPECT_EQ(::system(("cp /bin/sleep " + program).c_str()), 0);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  UniqueFd read(ends[0]);
  UniqueFd write(ends[1]);
  const pid_t child = ::fork();
  if (child == 0) {
    // The program has begun when the pipe's end closes on exec.
    ::execl(program.c_str(), "sleep", "1000", nullptr);
    ::_exit(127);
  }
  write.Reset();
  EXPECT_EQ(test_support::ReadToEnd(read.Get()), "");
  const int fd = ::open(program.c_str(), O_RDONLY | O_CLOEXEC);
  m_io = zym::CreateObject<IO>(m_host.locator.get(), fd, -1, kNoMountNamespace, true);
  EXPECT_EQ(m_io->ChangeAccessMode(mode::kRead | mode::kWrite), zym::ZYM_E_LOCKED);
  EXPECT_TRUE(m_tracer.Has(kFailure, "Cannot reopen, "));
  mode::Type current = 99;
  EXPECT_EQ(m_io->GetAccessMode(current), zym::ZYM_OK);
  EXPECT_EQ(current, mode::kRead);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

TEST_F(FileIo, EachStepOfAChangeMayFail) {
  const auto change = [this](long number, std::optional<test_support::Argument> argument,
                             std::string_view expression, std::string_view message) {
    return RunInChild([&]() -> std::string {
      IO& io = Open(O_RDONLY);
      const auto before = test_support::OpenDescriptors();
      if (const auto missing = test_support::FailSystemCall(number, EACCES, argument); !missing.empty())
        return missing;
      if (io.ChangeAccessMode(mode::kRead | mode::kWrite) != zym::ZYM_E_UNSPECIFIED) return "result";
      if (!m_tracer.Has(kFailure, std::string("(") + std::string(expression) + "),(bool) failed"))
        return "expression";
      if (!m_tracer.Has(kFailure, message)) return "message";
      mode::Type current = 99;
      io.GetAccessMode(current);
      if (current != mode::kRead) return "mode";
      if (number != SYS_openat && test_support::OpenDescriptors() != before) return "a descriptor is left";
      return {};
    });
  };
  EXPECT_EQ(change(SYS_lseek, {{2, SEEK_CUR}}, "off != -1", "Cannot get current offset, "), "");
  EXPECT_EQ(change(SYS_openat, {{2, O_RDWR | O_CLOEXEC}}, "newFd != -1", "Cannot reopen, "), "");
  EXPECT_EQ(change(SYS_lseek, {{2, SEEK_SET}}, "::lseek(newFd, off, 0) != -1", "Cannot reseek, "), "");
  EXPECT_EQ(change(SYS_dup3, std::nullopt, "::dup3(newFd, m_fd, 02000000) != -1", "Cannot dup back, "), "");
}

// --- properties ---

TEST_F(FileIo, OtherPropertiesGoToTheMap) {
  IO& io = Open(O_RDONLY);
  variant_t value{std::uint32_t{7}};
  ASSERT_EQ(io.Put(42, &value), zym::ZYM_OK);
  EXPECT_EQ(*Value(io, 42).If<std::uint32_t>(), 7U);
  EXPECT_EQ(io.Get(43, &value), zym::ZYM_E_PROPERTY_NOT_FOUND);
  EXPECT_TRUE(m_tracer.Has(kCall, "Get() id: 2a (fd: " + std::to_string(m_fd)));
  ASSERT_EQ(MarkDeleteOnClose(io, false), zym::ZYM_OK);
  zym::intrusive_ptr<zym::IEnumProperties> properties;
  ASSERT_EQ(io.Enumerate(properties.Ref()), zym::ZYM_OK);
  zym::propid_t id = 0;
  EXPECT_EQ(properties->Next(&id), zym::ZYM_OK);
  EXPECT_EQ(id, 42U);
  EXPECT_EQ(properties->Next(&id), zym::ZYM_OK);
  EXPECT_EQ(id, 0x20601000U);
  EXPECT_EQ(properties->Next(&id), zym::ZYM_FALSE);
}

TEST_F(FileIo, TheDescriptorIsAProperty) {
  IO& io = Open(O_RDONLY);
  EXPECT_EQ(Int(io, 0x30c02001), m_fd);
}

// --- the file behind ---

TEST_F(FileIo, TellsItsPath) {
  IO& io = Open(O_RDONLY);
  zym::types::string16_t path;
  ASSERT_EQ(io.GetPath(path), zym::ZYM_OK);
  EXPECT_EQ(std::string(path.begin(), path.end()), m_path);
}

TEST_F(FileIo, SetsEachTimeByItself) {
  IO& io = Open(O_RDWR);
  const zym::datetime_t write = zym::datetime::FromUnixSeconds(1600000000) + 1234567;
  const zym::datetime_t access = zym::datetime::FromUnixSeconds(1500000000) + 7654321;
  ASSERT_EQ(io.SetLastWriteTime(write), zym::ZYM_OK);
  ASSERT_EQ(io.SetLastAccessTime(access), zym::ZYM_OK);
  zym::datetime_t time = 0;
  ASSERT_EQ(io.GetLastWriteTime(time), zym::ZYM_OK);
  EXPECT_EQ(time, write);
  ASSERT_EQ(io.GetLastAccessTime(time), zym::ZYM_OK);
  EXPECT_EQ(time, access);
  EXPECT_TRUE(m_tracer.Has(kCall, "Last write time: " + std::to_string(write)));
  EXPECT_TRUE(m_tracer.Has(kCall, "Last access time: " + std::to_string(access)));
}

// Meant: a file has no creation time of its own.
TEST_F(FileIo, TheCreationTimeIsTheLastWriteTimeUnderAnotherName) {
  IO& io = Open(O_RDWR);
  const zym::datetime_t moment = zym::datetime::FromUnixSeconds(1234567890);
  ASSERT_EQ(io.SetCreationTime(moment), zym::ZYM_OK);
  zym::datetime_t time = 0;
  ASSERT_EQ(io.GetLastWriteTime(time), zym::ZYM_OK);
  EXPECT_EQ(time, moment);
  ASSERT_EQ(io.SetLastWriteTime(moment + 10), zym::ZYM_OK);
  ASSERT_EQ(io.GetCreationTime(time), zym::ZYM_OK);
  EXPECT_EQ(time, moment + 10);
}

TEST_F(FileIo, ATimeThatThePlatformHasNotIsRefusedAndTraced) {
  IO& io = Open(O_RDWR);
  constexpr zym::datetime_t kTooEarly = -116444736000000001;
  EXPECT_EQ(io.SetLastWriteTime(kTooEarly), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(io.SetLastAccessTime(kTooEarly), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(io.SetCreationTime(kTooEarly), zym::ZYM_E_INVALID_ARGUMENT);
  const std::string text = m_tracer.Find("Unexpected exception in SetLastAccessTime");
  EXPECT_NE(text.find("Invalid utc timestamp for posix platform -116444736000000001"), std::string::npos)
      << text;
  EXPECT_TRUE(m_tracer.Has(kFailure, "Unexpected exception in SetLastWriteTime"));
}

// A file system in memory keeps times that have no place in a datetime_t.
TEST_F(FileIo, ATimeOfTheFileBefore1601IsRefusedAndTraced) {
  const int fd = ::memfd_create("file_io_test", MFD_CLOEXEC);
  ASSERT_GE(fd, 0);
  const timespec times[2] = {{.tv_sec = -11644473601, .tv_nsec = 0}, {.tv_sec = -11644473601, .tv_nsec = 0}};
  ASSERT_EQ(::futimens(fd, times), 0);
  m_io = zym::CreateObject<IO>(m_host.locator.get(), fd, -1, kNoMountNamespace, true);
  zym::datetime_t time = 5;
  EXPECT_EQ(m_io->GetLastWriteTime(time), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_io->GetLastAccessTime(time), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_io->GetCreationTime(time), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(time, 5);
  EXPECT_TRUE(m_tracer.Has(kFailure, "Unexpected exception in GetLastWriteTime"));
  EXPECT_TRUE(m_tracer.Has(kFailure, "Unexpected exception in GetLastAccessTime"));
}

TEST_F(FileIo, AttributesAreNotImplemented) {
  IO& io = Open(O_RDONLY);
  std::uint32_t attributes = 5;
  EXPECT_EQ(io.GetAttributes(attributes), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_EQ(attributes, 5U);
  EXPECT_EQ(io.SetAttributes(1), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_TRUE(m_tracer.Has(kCall, "virtual result_t qor::IO::GetAttributes(uint32_t&) const"));
  EXPECT_TRUE(m_tracer.Has(kCall, "virtual result_t qor::IO::SetAttributes(uint32_t)"));
}

}  // namespace
}  // namespace qor
