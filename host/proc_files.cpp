#include "host/proc_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <system_error>

#include "qor_common/procfs_root.h"

namespace pmhost {

std::string ProcPath(std::uint32_t pid, const std::string& name) {
  return qor::procfs::GetProcfsRoot() + std::to_string(pid) + "/" + name;
}

qor::UniqueFd OpenProcFile(std::uint32_t pid, const std::string& name) {
  return qor::UniqueFd(::open(ProcPath(pid, name).c_str(), O_RDONLY | O_CLOEXEC));
}

std::string ReadProcFile(std::uint32_t pid, const std::string& name) {
  std::ifstream file(ProcPath(pid, name), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

int TryProcLink(std::uint32_t pid, const std::string& name) {
  char target[1];  // what it names doesn't matter
  return ::readlink(ProcPath(pid, name).c_str(), target, sizeof(target)) >= 0 ? 0 : errno;
}

std::string ReadCommandLine(std::uint32_t pid) {
  std::string text = ReadProcFile(pid, "cmdline");
  if (text.ends_with('\0')) text.pop_back();
  std::ranges::replace(text, '\0', ' ');
  return text;
}

std::optional<std::uint32_t> ProcessOfThread(std::uint32_t id) {
  constexpr std::string_view kField = "Tgid:";  // proc(5), /proc/<pid>/status
  std::istringstream status(ReadProcFile(id, "status"));
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(kField))
      return static_cast<std::uint32_t>(std::strtoul(line.c_str() + kField.size(), nullptr, 10));
  return std::nullopt;
}

std::vector<std::uint32_t> ThreadsOf(std::uint32_t pid) {
  std::vector<std::uint32_t> threads;
  std::error_code error;
  for (std::filesystem::directory_iterator thread(ProcPath(pid, "task"), error), end; !error && thread != end;
       thread.increment(error))
    threads.push_back(
        static_cast<std::uint32_t>(std::strtoul(thread->path().filename().c_str(), nullptr, 10)));
  return threads;
}

std::optional<RunState> ReadRunState(std::uint32_t id) {
  constexpr std::size_t kStartTime = 19;  // field 22 of all, behind the pid and the name
  const std::string stat = ReadProcFile(id, "stat");
  const std::size_t nameEnd = stat.rfind(')');
  if (nameEnd == std::string::npos) return std::nullopt;
  std::istringstream text(stat.substr(nameEnd + 1));
  const std::vector<std::string> fields{std::istream_iterator<std::string>(text), {}};
  if (fields.size() <= kStartTime) return std::nullopt;
  return RunState{.state = fields.front().front(), .startTime = fields[kStartTime]};
}

}  // namespace pmhost
