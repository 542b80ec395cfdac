// A stream over a file of the test's.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "qor_common/file_io.h"
#include "support/fake_services.h"
#include "support/temp_directory.h"
#include "zym/module_counter.h"

namespace qor {

inline bool Exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

inline bool IsOpen(int fd) {
  return ::fcntl(fd, F_GETFD) >= 0;
}

class FileIo : public testing::Test {
 protected:
  FileIo() { test_support::WriteTextFile(m_path, "0123456789"); }
  ~FileIo() override {
    m_io.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objectsBefore);
  }

  // A stream over the file, which owns its descriptor.
  IO& Open(int flags, int directoryFd = -1, std::uint64_t namespaceId = kNoMountNamespace) {
    m_fd = ::open(m_path.c_str(), flags | O_CLOEXEC);
    m_io = zym::CreateObject<IO>(m_host.locator.get(), m_fd, directoryFd, namespaceId, true);
    return *m_io;
  }

  static zym::types::variant_t Value(IO& io, zym::propid_t id) {
    zym::types::variant_t value;
    EXPECT_EQ(io.Get(id, &value), zym::ZYM_OK);
    return value;
  }
  static std::int32_t Int(IO& io, zym::propid_t id) {
    const zym::types::variant_t value = Value(io, id);
    const auto* const number = value.If<std::int32_t>();
    EXPECT_NE(number, nullptr);
    return number != nullptr ? *number : -1;
  }
  static zym::result_t MarkDeleteOnClose(IO& io, bool marked = true) {
    const zym::types::variant_t value{marked};
    return io.Put(zym::io_property::DeleteOnClose, &value);
  }
  static std::string ReadText(IO& io, std::uint32_t size) {
    std::string text(size, '?');
    std::uint32_t done = 0;
    EXPECT_EQ(io.Read(text.data(), size, done), zym::ZYM_OK);
    text.resize(done);
    return text;
  }

  test_support::TempDirectory m_directory;
  const std::string m_path = m_directory / "file";
  test_support::FakeHost m_host;
  test_support::RecordingTracer& m_tracer = *m_host.tracer;
  const std::int32_t m_objectsBefore = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<IO> m_io;
  int m_fd = -1;
};

}  // namespace qor
