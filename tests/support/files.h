// Whole texts, read and written.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace test_support {

// Throws std::runtime_error when the file can't be opened.
std::string ReadTextFile(const std::string& path);
// Makes the file with this content, or cuts it to that.
void WriteTextFile(const std::string& path, std::string_view text, mode_t mode = 0644);
// To a file or a pipe, in as many pieces as it takes.
void WriteAll(int fd, std::string_view text);

}  // namespace test_support
