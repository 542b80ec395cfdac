#include "process_manager/procfs_text.h"

#include <array>
#include <boost/regex.hpp>
#include <charconv>
#include <concepts>
#include <map>
#include <memory>
#include <utility>

#include "zym/utf.h"

namespace qor::procfs {
namespace {

bool IsBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// Takes values from the front of a text as stream extraction does: blanks before a value are skipped, and the
// first value that isn't there, or is out of the range of its type, fails this and all after it.
class Extractor {
 public:
  explicit Extractor(std::string_view text) : m_text(text) {}

  template <std::integral N>
  Extractor& operator>>(N& value) {
    SkipBlanks();
    if (m_failed) return *this;
    std::string_view digits = m_text;
    if (digits.starts_with('+')) digits.remove_prefix(1);
    // A negative number in an unsigned field wraps around, as it does with a stream: tpgid is -1 for a
    // process without a terminal.
    bool negate = false;
    if constexpr (std::unsigned_integral<N>) {
      negate = digits.starts_with('-');
      if (negate) digits.remove_prefix(1);
    }
    N parsed{};
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), parsed);
    if (error != std::errc()) {
      m_failed = true;
      return *this;
    }
    value = negate ? static_cast<N>(N{0} - parsed) : parsed;
    m_text.remove_prefix(static_cast<std::size_t>(end - m_text.data()));
    return *this;
  }

  Extractor& operator>>(char& value) {
    SkipBlanks();
    if (m_failed) return *this;
    value = m_text.front();
    m_text.remove_prefix(1);
    return *this;
  }

  explicit operator bool() const { return !m_failed; }

 private:
  void SkipBlanks() {
    while (!m_text.empty() && IsBlank(m_text.front())) m_text.remove_prefix(1);
    if (m_text.empty()) m_failed = true;
  }

  std::string_view m_text;
  bool m_failed = false;
};

template <std::integral N>
bool ToNumber(std::string_view text, N& value, int base) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return error == std::errc() && end == text.data() + text.size();
}

// The text of a group of a match; empty for one that didn't take part.
std::string_view Group(const boost::cmatch& match, int index) {
  return match[index].matched
             ? std::string_view(match[index].first, static_cast<std::size_t>(match.length(index)))
             : std::string_view();
}

bool Matches(std::string_view line, const boost::regex& pattern, boost::cmatch& match) {
  return boost::regex_search(line.data(), line.data() + line.size(), match, pattern);
}

std::uint32_t PermissionsOf(std::string_view text) {
  if (text.size() < 4) return 0;
  return (text[0] == 'r' ? 1U : 0U) | (text[1] == 'w' ? 2U : 0U) | (text[2] == 'x' ? 4U : 0U) |
         (text[3] == 's' ? 8U : 0U);
}

// Memory protection constants by permissions. Rows 6 and 14 (write and execute) are "no access", and row 7 is
// "execute-write-copy" where row 15 is "execute-read-write": that is meant, readers of these values rely on
// it.
constexpr std::array<std::uint32_t, 16> kProtection = {
    0x01, 0x02, 0x08, 0x04, 0x10, 0x20, 0x01, 0x80, 0x01, 0x02, 0x08, 0x04, 0x10, 0x20, 0x01, 0x40,
};

std::uint32_t ProtectionOf(std::uint32_t permissions) {
  return permissions < kProtection.size() ? kProtection[permissions] : 0;
}

// "Uid:" and "Gid:" have four numbers, "Groups:" any count; each as strtol takes them, decimal.
bool TakeIds(std::string_view text, std::uint32_t (&ids)[4]) {
  Extractor numbers(text);
  for (std::uint32_t& id : ids) {
    std::int64_t value = 0;
    if (!(numbers >> value)) return false;
    id = static_cast<std::uint32_t>(value);
  }
  return true;
}

bool StripPrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

}  // namespace

StatResult ParseStat(std::string_view line, Stat& stat) {
  if (!(Extractor(line) >> stat.pid)) return StatResult::kBadField;
  // The name may hold blanks and parentheses: only the first and the last parenthesis enclose it for sure.
  const std::size_t open = line.find('(');
  const std::size_t close = line.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || open > close)
    return StatResult::kNoComm;
  stat.comm.assign(line.substr(open + 1, close - open - 1));
  Extractor fields(line.substr(close + 1));
  fields >> stat.state >> stat.ppid >> stat.pgrp >> stat.session >> stat.tty_nr >> stat.tpgid >> stat.flags;
  fields >> stat.minflt >> stat.cminflt >> stat.majflt >> stat.cmajflt;
  fields >> stat.utime >> stat.stime >> stat.cutime >> stat.cstime >> stat.priority >> stat.nice >>
      stat.num_threads;
  fields >> stat.itrealvalue >> stat.starttime >> stat.vsize >> stat.rss >> stat.rsslim;
  return fields ? StatResult::kParsed : StatResult::kBadField;
}

bool ParseIOCounters(std::string_view text, IOCounters& counters) {
  // Built at each call: this is asked for rarely, and the patterns need not stay in memory.
  const boost::regex patterns[] = {
      boost::regex("^(rchar):\\s+([0-9]+)"),
      boost::regex("^(wchar):\\s+([0-9]+)"),
      boost::regex("^(syscr):\\s+([0-9]+)"),
      boost::regex("^(syscw):\\s+([0-9]+)"),
      boost::regex("^(read_bytes):\\s+([0-9]+)"),
      boost::regex("^(write_bytes):\\s+([0-9]+)"),
      boost::regex("^(cancelled_write_bytes):\\s+([0-9]+)"),
  };
  int missing = static_cast<int>(std::size(patterns));
  std::map<std::string_view, std::uint64_t> values;
  bool valid = true;
  ForEachLine(text, [&](std::string_view line) {
    boost::cmatch match;
    for (const boost::regex& pattern : patterns) {
      if (!Matches(line, pattern, match)) continue;
      valid = ToNumber(Group(match, 2), values[Group(match, 1)], 10) && valid;
      --missing;
    }
  });
  // A counter that is missing, or there twice, is no io file of a kernel.
  if (missing != 0 || !valid || values.size() != std::size(patterns)) return false;
  counters = {
      .rchar = values["rchar"],
      .wchar = values["wchar"],
      .syscr = values["syscr"],
      .syscw = values["syscw"],
      .read_bytes = values["read_bytes"],
      .write_bytes = values["write_bytes"],
      .cancelled_write_bytes = values["cancelled_write_bytes"],
  };
  return true;
}

bool ParseCreds(std::string_view text, Creds& creds) {
  bool uid = false;
  bool gid = false;
  bool groups = false;
  bool failed = false;
  ForEachLine(text, [&](std::string_view line) {
    if (failed || (uid && gid && groups)) return;
    if (StripPrefix(line, "Uid:")) {
      uid = TakeIds(line, creds.uid);
      failed = !uid;
    } else if (StripPrefix(line, "Gid:")) {
      gid = TakeIds(line, creds.gid);
      failed = !gid;
    } else if (StripPrefix(line, "Groups:")) {
      creds.groups.clear();
      Extractor numbers(line);
      for (std::int64_t value = 0; numbers >> value;)
        creds.groups.push_back(static_cast<std::uint32_t>(value));
      groups = true;
    }
  });
  return !failed && uid && gid && groups;
}

void ParseMaps(std::string_view text, Maps& maps) {
  static const boost::regex pattern(
      "^([0-9a-fA-F]+)-([0-9a-fA-F]+)\\s+([-rwxps]+)\\s+([0-9a-fA-F]+)\\s+([0-9a-fA-F]+):([0-9a-fA-F]+)"
      "\\s+([0-9]+)\\s*(.+)?$");
  ForEachLine(text, [&](std::string_view line) {
    boost::cmatch match;
    if (!Matches(line, pattern, match)) return;
    auto entry = std::make_shared<MapsEntry>();
    ToNumber(Group(match, 1), entry->begin, 16);
    ToNumber(Group(match, 2), entry->end, 16);
    entry->permissions = PermissionsOf(Group(match, 3));
    entry->protection = ProtectionOf(entry->permissions);
    ToNumber(Group(match, 4), entry->offset, 16);
    ToNumber(Group(match, 5), entry->deviceMajor, 16);
    ToNumber(Group(match, 6), entry->deviceMinor, 16);
    ToNumber(Group(match, 7), entry->inode, 10);  // 32 bits on purpose: a larger inode stays 0
    entry->path.assign(Group(match, 8));
    const std::uint64_t begin = entry->begin;
    maps.emplace(begin, std::move(entry));
  });
}

void ParseIOMemMap(std::string_view text, IOMemMap& map) {
  static const boost::regex pattern("\\s*([0-9a-fA-F]+)-([0-9a-fA-F]+)\\s+:\\s+(.*)$");
  ForEachLine(text, [&](std::string_view line) {
    boost::cmatch match;
    if (!Matches(line, pattern, match)) return;
    IOMemRange range;
    ToNumber(Group(match, 1), range.begin, 16);
    ToNumber(Group(match, 2), range.end, 16);
    range.name.assign(Group(match, 3));
    map.push_back(std::move(range));
  });
}

std::optional<ModuleEntry> ParseModule(std::string_view line) {
  // name size references dependencies state offset
  std::array<std::string_view, 6> tokens;
  for (std::string_view& token : tokens) {
    const std::size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return std::nullopt;
    line.remove_prefix(begin);
    token = line.substr(0, line.find_first_of(" \t"));
    line.remove_prefix(token.size());
  }
  ModuleEntry entry;
  std::string_view offset = tokens[5];
  if (!StripPrefix(offset, "0x")) StripPrefix(offset, "0X");
  if (!ToNumber(tokens[1], entry.size, 10) || !ToNumber(tokens[2], entry.referenceCount, 10) ||
      !ToNumber(offset, entry.offset, 16))
    return std::nullopt;
  entry.name.assign(tokens[0]);
  constexpr std::string_view kStates[] = {"Live", "Loading", "Unloading"};
  entry.state = 0;
  while (entry.state < std::size(kStates) && kStates[entry.state] != tokens[4]) ++entry.state;
  return entry;
}

std::optional<zym::types::string16_t> ParseCmdline(std::string_view text) {
  std::optional<zym::types::string16_t> result = zym::Utf8ToUtf16(text);
  if (!result) return result;
  for (char16_t& c : *result)
    if (c == u'\0') c = u' ';
  if (result->ends_with(u' ')) result->pop_back();
  return result;
}

}  // namespace qor::procfs
