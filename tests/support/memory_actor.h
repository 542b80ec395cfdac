// A process whose memory is known, and what the kernel says of one.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qor_common/unique_fd.h"
#include "support/temp_directory.h"

namespace test_support {

// The program tests/programs/memory_actor.cpp, which tells its own addresses and bytes. Ends with its owner.
class MemoryActor {
 public:
  struct Mapping {
    std::uint64_t address = 0;
    std::uint64_t length = 0;
    std::optional<std::vector<std::uint8_t>> bytes;  // absent: the actor can't tell
  };

  // `large`: bytes of the mapping "large", which has its own offset (u64) at each multiple of `distance`, and
  // is untouched elsewhere; 0: there is none. Throws std::runtime_error when the actor doesn't get ready.
  explicit MemoryActor(std::uint64_t large = 0, std::uint64_t distance = 1 << 20);
  ~MemoryActor();
  MemoryActor(const MemoryActor&) = delete;
  MemoryActor& operator=(const MemoryActor&) = delete;

  [[nodiscard]] std::uint32_t Pid() const { return static_cast<std::uint32_t>(m_pid); }
  // The file behind "file" and "library". There is a blank in its name.
  [[nodiscard]] const std::string& File() const { return m_file; }

  // Names: anonymous, low (below 4 GiB), file, shared, guarded (not accessible), across (two regions in one),
  // library (two of them), anonymous-code, write-execute, vdso, vvar, large, edge (nothing behind it),
  // unmapped (that). Throws std::out_of_range for one that this kernel doesn't have.
  [[nodiscard]] const Mapping& Get(std::string_view name) const;
  [[nodiscard]] std::vector<Mapping> All(std::string_view name) const;
  [[nodiscard]] bool Has(std::string_view name) const { return !All(name).empty(); }

  // Ends the process for good; its pid is nobody's then.
  void End();

 private:
  void ReadReport(int fd);

  TempDirectory m_directory;
  std::string m_file;
  pid_t m_pid = -1;
  qor::UniqueFd m_input;  // the actor stays until it closes
  std::multimap<std::string, Mapping, std::less<>> m_mappings;
};

// One line of /proc/<pid>/maps.
struct MapsLine {
  std::uint64_t begin = 0, end = 0;
  std::string permissions;  // as in "rwxp"
  std::string path;
};
std::vector<MapsLine> ReadMaps(std::uint32_t pid);

// What pread(2) of /proc/<pid>/mem gives for the same question, up to the first byte that can't be read.
std::vector<std::uint8_t> ReadMemFile(std::uint32_t pid, std::uint64_t address, std::size_t size);

}  // namespace test_support
