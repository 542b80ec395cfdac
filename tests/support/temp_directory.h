// A directory of a test's own, gone with everything in it when the test ends.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

#include "support/files.h"

namespace test_support {

class TempDirectory {
 public:
  TempDirectory() : m_path((std::filesystem::temp_directory_path() / "pm-test-XXXXXX").string()) {
    if (::mkdtemp(m_path.data()) == nullptr) throw std::runtime_error("cannot make a temporary directory");
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  [[nodiscard]] const std::string& Path() const { return m_path; }
  [[nodiscard]] std::string operator/(const std::string& name) const { return m_path + "/" + name; }

  // The path of `name`, which may begin with a slash, in it; the directories in between are made.
  std::string Place(std::string_view name) const {
    const std::filesystem::path path = m_path + (name.starts_with('/') ? "" : "/") + std::string(name);
    std::filesystem::create_directories(path.parent_path());
    return path.string();
  }
  // Makes the file `name` with this content.
  std::string Write(std::string_view name, std::string_view content) const {
    const std::string path = Place(name);
    WriteTextFile(path, content);
    return path;
  }

 private:
  std::string m_path;
};

}  // namespace test_support
