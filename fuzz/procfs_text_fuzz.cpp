// Every text of /proc that is parsed: the first byte says which.
#include <cstdint>
#include <string_view>

#include "process_manager/procfs_text.h"

using namespace qor::procfs;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 8) {
    case 0: {
      Stat stat;
      ParseStat(text, stat);
      break;
    }
    case 1: {
      IOCounters counters{.rchar = 7};
      if (!ParseIOCounters(text, counters) && counters.rchar != 7) __builtin_trap();
      break;
    }
    case 2: {
      Creds creds;
      ParseCreds(text, creds);
      break;
    }
    case 3: {
      Maps maps;
      ParseMaps(text, maps);
      for (const auto& [begin, entry] : maps)
        if (begin != entry->begin || entry->permissions > 15) __builtin_trap();
      break;
    }
    case 4: {
      IOMemMap map;
      ParseIOMemMap(text, map);
      break;
    }
    case 5:
      ForEachLine(text, [](std::string_view line) {
        ModuleEntry entry;
        ParseModule(line, false, entry);
        return true;
      });
      break;
    case 6:
      ParseCmdline(text);
      break;
    case 7: {
      std::size_t total = 0;
      ForEachVariable(text, [&total](std::string_view variable) {
        total += variable.size();
        return true;
      });
      if (total > text.size()) __builtin_trap();
      break;
    }
  }
  return 0;
}
