// The texts of /proc as values. Each parser takes a whole file, or one line of it, and has no other input:
// the live reader, the tests and the fuzzers use the same code.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "process_manager/procfs.h"
#include "zym/containers.h"

namespace qor::procfs {

enum class StatResult {
  kParsed,
  kNoComm,    // the parentheses around the name are missing or out of order
  kBadField,  // a number is missing or out of range; the fields before it are set
};

// One line of a stat file. Sets the fields that come from the line.
StatResult ParseStat(std::string_view line, Stat& stat);

// An io file, whose seven counters must all be there, once each. `counters` is untouched on failure.
bool ParseIOCounters(std::string_view text, IOCounters& counters);

// A status file: Uid, Gid and Groups, in any order of lines.
bool ParseCreds(std::string_view text, Creds& creds);

// The lines of a maps file that are mappings; others are skipped.
void ParseMaps(std::string_view text, Maps& maps);

// The lines of an iomem file that are ranges; others are skipped.
void ParseIOMemMap(std::string_view text, IOMemMap& map);

// One line of a modules file; null for one that is none.
std::optional<ModuleEntry> ParseModule(std::string_view line);

// The arguments of a cmdline file joined by single blanks; null when they are not UTF-8.
std::optional<zym::types::string16_t> ParseCmdline(std::string_view text);

// Calls `visit` with each piece of an environ file, the empty ones too; stops when it gives false.
template <class Visit>
void ForEachVariable(std::string_view text, Visit visit) {
  while (!text.empty()) {
    const std::size_t end = text.find('\0');
    if (!visit(text.substr(0, end))) return;
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  }
}

// Calls `visit` with each line, without its end.
template <class Visit>
void ForEachLine(std::string_view text, Visit visit) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    visit(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  }
}

}  // namespace qor::procfs
