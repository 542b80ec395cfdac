// Every text of /proc that is parsed: the first byte says which. Where a pattern or a stream says what is to
// come out, the parser is compared with it.
#include <cstdint>
#include <optional>
#include <string_view>

#include "process_manager/procfs/procfs_text.h"
#include "tests/process_manager/procfs/procfs_patterns.h"

using namespace qor::procfs;

namespace {

void Require(bool condition) {
  if (!condition) __builtin_trap();
}

void FuzzStat(std::string_view line) {
  Stat stat;
  const StatResult result = ParseStat(line, stat);
  const auto [expected, reference] = procfs_patterns::ParseStat(line);
  Require(result == expected);
  Require(procfs_patterns::Fields(stat) == procfs_patterns::Fields(reference));
}

void FuzzIOCounters(std::string_view text) {
  IOCounters counters{.rchar = 7};
  const bool parsed = ParseIOCounters(text, counters);
  const std::optional<IOCounters> reference = procfs_patterns::ParseIOCounters(text);
  Require(parsed == reference.has_value());
  Require(procfs_patterns::Fields(counters) ==
          procfs_patterns::Fields(reference.value_or(IOCounters{.rchar = 7})));
}

void FuzzModules(std::string_view text) {
  ForEachLine(text, [](std::string_view line) {
    ModuleEntry strict;
    ModuleEntry entry;
    const ModuleResult result = ParseModule(line, true, entry);
    Require(result != ModuleResult::kHidden);
    const ModuleResult strictResult = ParseModule(line, false, strict);
    if (result == ModuleResult::kParsed)
      Require((strictResult == ModuleResult::kHidden) == (entry.offset == 0));
    Require(entry.state <= 3);
    return true;
  });
}

void FuzzEnviron(std::string_view text) {
  std::size_t total = 0;
  std::size_t pieces = 0;
  ForEachVariable(text, [&](std::string_view variable) {
    total += variable.size();
    ++pieces;
    return true;
  });
  // Every byte is in a piece, or is the NUL behind one; the last piece may have none.
  Require(total + pieces == text.size() || total + pieces == text.size() + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 8) {
    case 0:
      FuzzStat(text);
      break;
    case 1:
      FuzzIOCounters(text);
      break;
    case 2: {
      Creds creds;
      ParseCreds(text, creds);
      break;
    }
    case 3: {
      Maps maps;
      ParseMaps(text, maps);
      Require(procfs_patterns::Equal(maps, procfs_patterns::ParseMaps(text)));
      break;
    }
    case 4: {
      IOMemMap map;
      ParseIOMemMap(text, map);
      Require(procfs_patterns::Equal(map, procfs_patterns::ParseIOMemMap(text)));
      break;
    }
    case 5:
      FuzzModules(text);
      ParseSectionAddress(text);
      break;
    case 6:
      if (const auto cmdline = ParseCmdline(text)) Require(cmdline->find(u'\0') == std::u16string_view::npos);
      break;
    case 7:
      FuzzEnviron(text);
      break;
  }
  return 0;
}
