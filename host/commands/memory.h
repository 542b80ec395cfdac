// The memory of a process: its regions, or what is in it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/options.h"

namespace pmhost {

struct MemoryRange {
  std::uint64_t address = 0;
  std::uint64_t length = 0;  // bytes
};

struct MemoryOptions {
  std::uint32_t pid = 0;
  std::optional<MemoryRange> read;  // absent: the regions
  bool raw = false;
};

// A number in decimal, or in hexadecimal behind "0x"; absent for anything else. Leading zeros mean nothing.
std::optional<std::uint64_t> ParseMemoryNumber(const std::string& text);

void ShowMemory(const GlobalOptions& global, const MemoryOptions& options);

}  // namespace pmhost
