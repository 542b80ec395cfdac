#include "host/module_file.h"

#include <filesystem>
#include <system_error>

#include "host/failure.h"

namespace pmhost {
namespace {

constexpr const char* kFileName = "libprocess_manager.so";

}  // namespace

std::string FindModule(const std::string& named) {
  // Absolute: a name without a slash would be looked for where libraries are, and not in this directory.
  if (!named.empty()) return std::filesystem::absolute(named).string();

  // Beside the program in a build tree; in ../lib in an installed one.
  std::error_code error;
  const std::filesystem::path directory =
      std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  for (const std::filesystem::path& place :
       {directory / kFileName, directory.parent_path() / "lib" / kFileName})
    if (std::filesystem::exists(place, error)) return place;
  throw Failure(std::string(kFileName) +
                " is neither beside pmhost nor in ../lib: name it with --module FILE");
}

}  // namespace pmhost
