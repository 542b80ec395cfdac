// The kit's reader of stat files: whatever the name is, the numbers are those that the module's own reader
// finds in a line of such a file.
#include <cstdint>
#include <string>
#include <string_view>

#include "host_kit/stat_text.h"
#include "process_manager/procfs/procfs_text.h"
#include "tests/process_manager/procfs/procfs_patterns.h"

using namespace qor::procfs;

namespace {

void Require(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Stat stat;
  if (!host_kit::ParseStatText(text, stat)) {
    Require(procfs_patterns::Fields(stat) == procfs_patterns::Fields(Stat()));
    return 0;
  }
  // Under a name without line ends it is a line that the module reads.
  std::string line(text.substr(0, text.find('(')));
  line += "(name";
  line += text.substr(text.rfind(')'));
  line.resize(line.find('\n') == std::string::npos ? line.size() : line.find('\n'));
  Stat reference;
  Require(ParseStat(line, reference) == StatResult::kParsed);
  Require(text.find("(" + stat.comm + ")") != std::string_view::npos);
  stat.comm = reference.comm;
  Require(procfs_patterns::Fields(stat) == procfs_patterns::Fields(reference));
  return 0;
}
