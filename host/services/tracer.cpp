#include "host/services/tracer.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

#include "host/failure.h"
#include "qor_common/unique_fd.h"

namespace pmhost {
namespace {

iovec Piece(std::string_view text) {
  return {.iov_base = const_cast<char*>(text.data()), .iov_len = text.size()};  // it is only read
}

void WriteLine(int fd, std::uint32_t level, std::string_view text) {
  char number[8];
  const int length = std::snprintf(number, sizeof(number), "%3u ", level % 1000);
  const iovec line[] = {Piece({number, static_cast<std::size_t>(length)}), Piece(text), Piece("\n")};
  static_cast<void>(!::writev(fd, line, std::size(line)));
}

// Writes to the file until the last copy of it goes.
host_kit::CallbackTracer::Callback WriterOf(const std::string& file) {
  if (file.empty())
    return [](std::uint32_t level, std::string_view text) { WriteLine(STDERR_FILENO, level, text); };
  qor::UniqueFd opened(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640));
  const int error = errno;
  if (!opened) throw Failure("cannot write the trace to " + file + ": " + std::strerror(error));
  const auto fd = std::make_shared<const qor::UniqueFd>(std::move(opened));
  return [fd](std::uint32_t level, std::string_view text) { WriteLine(fd->Get(), level, text); };
}

}  // namespace

Tracer::Tracer(std::uint32_t ceiling, const std::string& file) : CallbackTracer(ceiling, WriterOf(file)) {}

}  // namespace pmhost
