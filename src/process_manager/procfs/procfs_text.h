// The texts of /proc as values. Each parser takes a whole file, or one line of it, and has no other input:
// the live reader, the tests and the fuzzers use the same code.
//
// Where a comment names a pattern (a regular expression of Perl's syntax), exactly the lines are taken in
// which the pattern is found; "." stands for any character of the line. The parsers are written by hand for
// their speed, and the tests compare them with the patterns.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "process_manager/proc_parser.h"
#include "zym/containers.h"

namespace qor::procfs {

enum class StatResult {
  kParsed,
  kNoComm,    // the parentheses around the name are missing or out of order
  kBadField,  // a number is missing or out of range; the fields before it are set
};

// One line of a stat file. Sets the fields that come from the line.
StatResult ParseStat(std::string_view line, Stat& stat);

// An io file, whose seven counters must all be there, once each. `counters` is untouched on failure. The
// pattern of each line: "^(NAME):\s+([0-9]+)".
bool ParseIOCounters(std::string_view text, IOCounters& counters);

// A status file: the lines Uid, Gid and Groups, in any order. False: one is missing, or has too few numbers;
// what was found is set.
bool ParseCreds(std::string_view text, Creds& creds);

// Adds the lines of a maps file that are mappings; others are skipped. The pattern:
// "^([0-9a-fA-F]+)-([0-9a-fA-F]+)\s+([-rwxps]+)\s+([0-9a-fA-F]+)\s+([0-9a-fA-F]+):([0-9a-fA-F]+)\s+([0-9]+)
// \s*(.+)?$". A number that is out of range is 0.
void ParseMaps(std::string_view text, Maps& maps);

// The bits of a "rwxp" column; 0 for one shorter than four characters.
std::uint32_t PermissionsOf(std::string_view text);

// The memory protection constant of permissions: 0x01 no access, 0x02 read, 0x04 read and write, 0x08 write
// copy, 0x10 execute, 0x20 execute and read, 0x40 execute, read and write, 0x80 execute and write copy; 0
// for permissions beyond the four bits.
std::uint32_t ProtectionOf(std::uint32_t permissions);

// Adds the lines of an iomem file that are ranges; others are skipped. The pattern:
// "\s*([0-9a-fA-F]+)-([0-9a-fA-F]+)\s+:\s+(.*)$".
void ParseIOMemMap(std::string_view text, IOMemMap& map);

enum class ModuleResult {
  kParsed,
  kSkipped,  // it is no line of a modules file
  kHidden,   // the offset is 0, and that isn't allowed
};

// One line of a modules file. `entry` is set when it is parsed.
ModuleResult ParseModule(std::string_view line, bool allowZeroOffset, ModuleEntry& entry);

// The first value of a file below "sections", hexadecimal; null when there is none.
std::optional<std::uint64_t> ParseSectionAddress(std::string_view text);

// The arguments of a cmdline file joined by single blanks; null when they are not UTF-8.
std::optional<zym::types::string16_t> ParseCmdline(std::string_view text);

// The number that a name is made of, by the pattern "^[0-9]+$"; null for other names, and for numbers beyond
// 32 bits, which no process has.
std::optional<unsigned int> ParseProcessName(std::string_view name);

// Calls `visit` with each piece of an environ file, the empty ones too; stops when that returns false.
template <class Visit>
void ForEachVariable(std::string_view text, Visit visit) {
  while (!text.empty()) {
    const std::size_t end = text.find('\0');
    if (!visit(text.substr(0, end))) return;
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  }
}

// Calls `visit` with each line, without its end; stops when that returns false.
template <class Visit>
void ForEachLine(std::string_view text, Visit visit) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (!visit(text.substr(0, end))) return;
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  }
}

}  // namespace qor::procfs
