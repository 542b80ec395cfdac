#include "support/memory_actor.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace test_support {
namespace {

std::optional<std::vector<std::uint8_t>> FromHexadecimal(const std::string& digits) {
  if (digits == "-") return std::nullopt;
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}

std::pair<qor::UniqueFd, qor::UniqueFd> MakePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
  return {qor::UniqueFd(ends[0]), qor::UniqueFd(ends[1])};
}

std::string FileContent() {
  std::string content;
  for (int i = 0; content.size() < 2 * 4096; ++i)
    content += "line " + std::to_string(i) + " of a mapped file\n";
  return content;
}

}  // namespace

MemoryActor::MemoryActor(std::uint64_t large, std::uint64_t distance)
    : m_file(m_directory.Write("mapped file.so", FileContent())) {
  auto [inputRead, inputWrite] = MakePipe();
  auto [outputRead, outputWrite] = MakePipe();
  std::string program = MEMORY_ACTOR_PROGRAM;
  std::string size = std::to_string(large);
  std::string step = std::to_string(distance);
  char* const arguments[] = {program.data(), m_file.data(), large != 0 ? size.data() : nullptr, step.data(),
                             nullptr};
  m_pid = ::fork();
  if (m_pid < 0) throw std::runtime_error("cannot fork");
  if (m_pid == 0) {
    ::dup2(inputRead.Get(), STDIN_FILENO);
    ::dup2(outputWrite.Get(), STDOUT_FILENO);
    ::execv(program.c_str(), arguments);
    ::_exit(127);
  }
  outputWrite.Reset();
  m_input = std::move(inputWrite);
  try {
    ReadReport(outputRead.Get());
  } catch (...) {
    End();
    throw;
  }
}

MemoryActor::~MemoryActor() {
  End();
}

void MemoryActor::End() {
  if (m_pid <= 0) return;
  ::kill(m_pid, SIGKILL);
  ::waitpid(m_pid, nullptr, 0);
  m_pid = -1;
}

void MemoryActor::ReadReport(int fd) {
  std::string report;
  char chunk[65536];
  while (!report.ends_with("ready\n")) {
    const ssize_t count = ::read(fd, chunk, sizeof(chunk));
    if (count <= 0) throw std::runtime_error("the memory actor ended before it was ready");
    report.append(chunk, static_cast<std::size_t>(count));
  }
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string name;
    std::string digits;
    Mapping mapping;
    if (fields >> name >> std::hex >> mapping.address >> mapping.length >> digits) {
      mapping.bytes = FromHexadecimal(digits);
      m_mappings.emplace(name, std::move(mapping));
    }
  }
}

const MemoryActor::Mapping& MemoryActor::Get(std::string_view name) const {
  const auto found = m_mappings.find(name);
  if (found == m_mappings.end()) throw std::out_of_range("the memory actor has no " + std::string(name));
  return found->second;
}

std::vector<MemoryActor::Mapping> MemoryActor::All(std::string_view name) const {
  std::vector<Mapping> mappings;
  for (auto [it, end] = m_mappings.equal_range(name); it != end; ++it) mappings.push_back(it->second);
  return mappings;
}

std::vector<MapsLine> ReadMaps(std::uint32_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/maps");
  if (!file) throw std::runtime_error("cannot read the maps of " + std::to_string(pid));
  std::vector<MapsLine> maps;
  for (std::string line; std::getline(file, line);) {
    MapsLine entry;
    char permissions[5] = {};
    int path = 0;
    // The format of show_map_vma in fs/proc/task_mmu.c.
    if (std::sscanf(line.c_str(), "%lx-%lx %4s %*s %*s %*s%n", &entry.begin, &entry.end, permissions, &path) <
        3)
      throw std::runtime_error("no line of maps: " + line);
    entry.permissions = permissions;
    const std::size_t begin = line.find_first_not_of(' ', static_cast<std::size_t>(path));
    if (begin != std::string::npos) entry.path = line.substr(begin);
    maps.push_back(std::move(entry));
  }
  return maps;
}

std::vector<std::uint8_t> ReadMemFile(std::uint32_t pid, std::uint64_t address, std::size_t size) {
  const qor::UniqueFd file(::open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) throw std::runtime_error("cannot open the memory of " + std::to_string(pid));
  std::vector<std::uint8_t> bytes(size);
  // Not pread(2), which refuses addresses of the upper half before the file is asked.
  if (::lseek64(file.Get(), static_cast<off64_t>(address), SEEK_SET) == -1 && address != ~std::uint64_t{0})
    return {};
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = ::read(file.Get(), bytes.data() + done, size - done);
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  bytes.resize(done);
  return bytes;
}

}  // namespace test_support
