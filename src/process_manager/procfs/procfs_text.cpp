#include "process_manager/procfs/procfs_text.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "process_manager/procfs/procfs_extractor.h"
#include "zym/utf.h"

namespace qor::procfs {
namespace {

constexpr bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}
constexpr bool IsHexDigit(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
constexpr bool IsPermission(char c) {
  return c == '-' || c == 'r' || c == 'w' || c == 'x' || c == 'p' || c == 's';
}

// A line that is taken apart from its front, by the pieces of a pattern. Each piece takes all that it can,
// which is what the pattern finds too as long as the next piece can't begin with a character of this one.
class Line {
 public:
  explicit Line(std::string_view rest) : m_rest(rest) {}

  // "[class]+" as a group.
  template <class IsMember>
  bool Take(IsMember isMember, std::string_view& group) {
    std::size_t length = 0;
    while (length < m_rest.size() && isMember(m_rest[length])) ++length;
    group = m_rest.substr(0, length);
    m_rest.remove_prefix(length);
    return length != 0;
  }

  bool Take(char c) {
    if (!m_rest.starts_with(c)) return false;
    m_rest.remove_prefix(1);
    return true;
  }

  // "\s+"
  bool TakeBlanks() {
    std::string_view blanks;
    return Take(IsBlank, blanks);
  }

  bool StripPrefix(std::string_view prefix) {
    if (!m_rest.starts_with(prefix)) return false;
    m_rest.remove_prefix(prefix.size());
    return true;
  }

  [[nodiscard]] std::string_view Rest() const { return m_rest; }

 private:
  std::string_view m_rest;
};

// One line of a maps file; null for a line of another form.
std::shared_ptr<MapsEntry> ParseMapping(std::string_view text) {
  Line line(text);
  std::string_view begin, end, permissions, offset, deviceMajor, deviceMinor, inode;
  const bool matches = line.Take(IsHexDigit, begin) && line.Take('-') && line.Take(IsHexDigit, end) &&
                       line.TakeBlanks() && line.Take(IsPermission, permissions) && line.TakeBlanks() &&
                       line.Take(IsHexDigit, offset) && line.TakeBlanks() &&
                       line.Take(IsHexDigit, deviceMajor) && line.Take(':') &&
                       line.Take(IsHexDigit, deviceMinor) && line.TakeBlanks() && line.Take(IsDigit, inode);
  if (!matches) return nullptr;
  auto entry = std::make_shared<MapsEntry>();
  entry->begin = ToNumber<std::uint64_t>(begin, 16).value_or(0);
  entry->end = ToNumber<std::uint64_t>(end, 16).value_or(0);
  entry->permissions = PermissionsOf(permissions);
  entry->protection = ProtectionOf(entry->permissions);
  entry->offset = ToNumber<std::uint64_t>(offset, 16).value_or(0);
  entry->deviceMajor = ToNumber<std::uint32_t>(deviceMajor, 16).value_or(0);
  entry->deviceMinor = ToNumber<std::uint32_t>(deviceMinor, 16).value_or(0);
  entry->inode = ToNumber<std::uint32_t>(inode).value_or(0);  // 32 bits on purpose
  entry->path.assign(SkipBlanks(line.Rest()));
  return entry;
}

// The pattern may be found anywhere in the line: the first dash between two numbers that fits is the one.
bool ParseIOMemRange(std::string_view text, IOMemRange& range) {
  for (std::size_t dash = text.find('-'); dash != std::string_view::npos; dash = text.find('-', dash + 1)) {
    std::size_t start = dash;
    while (start > 0 && IsHexDigit(text[start - 1])) --start;
    const std::string_view first = text.substr(start, dash - start);
    Line line(text.substr(dash + 1));
    std::string_view last;
    if (first.empty() || !line.Take(IsHexDigit, last) || !line.TakeBlanks() || !line.Take(':') ||
        !line.TakeBlanks())
      continue;
    range.first = ToNumber<std::uint64_t>(first, 16).value_or(0);
    range.last = ToNumber<std::uint64_t>(last, 16).value_or(0);
    range.name.assign(line.Rest());
    return true;
  }
  return false;
}

bool TakeIds(std::string_view text, std::uint32_t (&ids)[4]) {
  for (std::uint32_t& id : ids) {
    const std::optional<std::int64_t> value = TakeLong(text);
    if (!value) return false;
    id = static_cast<std::uint32_t>(*value);
  }
  return true;
}

void TakeGroups(std::string_view text, std::vector<std::uint32_t>& groups) {
  groups.clear();
  while (const std::optional<std::int64_t> value = TakeLong(text))
    groups.push_back(static_cast<std::uint32_t>(*value));
}

}  // namespace

StatResult ParseStat(std::string_view line, Stat& stat) {
  Extractor fields(line);
  fields >> stat.pid;
  // The name may hold blanks and parentheses: only the first and the last parenthesis enclose it for sure.
  const std::size_t open = line.find('(');
  const std::size_t close = line.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || open > close)
    return StatResult::kNoComm;
  stat.comm.assign(line.substr(open + 1, close - open - 1));
  fields.Seek(line.substr(close + 1));
  fields >> stat.state >> stat.ppid >> stat.pgrp >> stat.session >> stat.tty_nr >> stat.tpgid >> stat.flags;
  fields >> stat.minflt >> stat.cminflt >> stat.majflt >> stat.cmajflt;
  fields >> stat.utime >> stat.stime >> stat.cutime >> stat.cstime;
  fields >> stat.priority >> stat.nice >> stat.num_threads >> stat.itrealvalue;
  fields >> stat.starttime >> stat.vsize >> stat.rss >> stat.rsslim;
  return fields ? StatResult::kParsed : StatResult::kBadField;
}

bool ParseIOCounters(std::string_view text, IOCounters& counters) {
  constexpr std::array<std::pair<std::string_view, std::uint64_t IOCounters::*>, 7> kCounters = {{
      {"rchar", &IOCounters::rchar},
      {"wchar", &IOCounters::wchar},
      {"syscr", &IOCounters::syscr},
      {"syscw", &IOCounters::syscw},
      {"read_bytes", &IOCounters::read_bytes},
      {"write_bytes", &IOCounters::write_bytes},
      {"cancelled_write_bytes", &IOCounters::cancelled_write_bytes},
  }};
  IOCounters parsed;
  std::size_t missing = kCounters.size();
  std::uint32_t seen = 0;
  bool valid = true;
  ForEachLine(text, [&](std::string_view textLine) {
    for (std::size_t i = 0; i < kCounters.size(); ++i) {
      Line line(textLine);
      std::string_view value;
      if (!line.StripPrefix(kCounters[i].first) || !line.Take(':') || !line.TakeBlanks() ||
          !line.Take(IsDigit, value))
        continue;
      const std::optional<std::uint64_t> number = ToNumber<std::uint64_t>(value);
      // A counter that is there twice is in no file of a kernel's.
      valid = valid && number && (seen & 1U << i) == 0;
      parsed.*kCounters[i].second = number.value_or(0);
      seen |= 1U << i;
      --missing;
    }
    return valid;
  });
  if (!valid || missing != 0) return false;
  counters = parsed;
  return true;
}

bool ParseCreds(std::string_view text, Creds& creds) {
  bool uid = false;
  bool gid = false;
  bool groups = false;
  bool failed = false;
  ForEachLine(text, [&](std::string_view textLine) {
    Line line(textLine);
    if (line.StripPrefix("Uid:")) {
      uid = TakeIds(line.Rest(), creds.uid);
      failed = !uid;
    } else if (line.StripPrefix("Gid:")) {
      gid = TakeIds(line.Rest(), creds.gid);
      failed = !gid;
    } else if (line.StripPrefix("Groups:")) {
      TakeGroups(line.Rest(), creds.groups);
      groups = true;
    }
    return !failed && !(uid && gid && groups);
  });
  return !failed && uid && gid && groups;
}

std::uint32_t PermissionsOf(std::string_view text) {
  if (text.size() < 4) return 0;
  return (text[0] == 'r' ? 1U : 0U) | (text[1] == 'w' ? 2U : 0U) | (text[2] == 'x' ? 4U : 0U) |
         (text[3] == 's' ? 8U : 0U);
}

std::uint32_t ProtectionOf(std::uint32_t permissions) {
  // Rows 6 and 14 (write and execute) are "no access", and row 7 is "execute and write copy" where row 15 is
  // "execute, read and write": that is meant, readers of these values rely on it.
  constexpr std::array<std::uint32_t, 16> kProtection = {
      0x01, 0x02, 0x08, 0x04, 0x10, 0x20, 0x01, 0x80, 0x01, 0x02, 0x08, 0x04, 0x10, 0x20, 0x01, 0x40,
  };
  return permissions < kProtection.size() ? kProtection[permissions] : 0;
}

void ParseMaps(std::string_view text, Maps& maps) {
  ForEachLine(text, [&](std::string_view line) {
    if (std::shared_ptr<MapsEntry> entry = ParseMapping(line)) {
      const std::uint64_t begin = entry->begin;
      // The file is in ascending order.
      maps.emplace_hint(maps.end(), begin, std::move(entry));
    }
    return true;
  });
}

void ParseIOMemMap(std::string_view text, IOMemMap& map) {
  ForEachLine(text, [&](std::string_view line) {
    if (IOMemRange range; ParseIOMemRange(line, range)) map.push_back(std::move(range));
    return true;
  });
}

ModuleResult ParseModule(std::string_view line, bool allowZeroOffset, ModuleEntry& entry) {
  constexpr std::string_view kBlanks = " \t";
  // name, size, references, dependencies (not read), state, offset
  std::array<std::string_view, 6> tokens;
  for (std::string_view& token : tokens) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    if (line.empty()) return ModuleResult::kSkipped;
    token = line.substr(0, line.find_first_of(kBlanks));
    line.remove_prefix(token.size());
  }

  std::string_view hexadecimal = tokens[5];
  if (hexadecimal.starts_with("0x") || hexadecimal.starts_with("0X")) hexadecimal.remove_prefix(2);
  const std::optional<std::uint64_t> offset = ToNumber<std::uint64_t>(hexadecimal, 16);
  if (!offset) return ModuleResult::kSkipped;
  if (*offset == 0 && !allowZeroOffset) return ModuleResult::kHidden;
  const std::optional<std::uint64_t> size = ToNumber<std::uint64_t>(tokens[1]);
  const std::optional<std::uint32_t> references = ToNumber<std::uint32_t>(tokens[2]);
  if (!size || !references) return ModuleResult::kSkipped;

  constexpr std::array<std::string_view, 3> kStates = {"Live", "Loading", "Unloading"};
  entry = {
      .name = std::string(tokens[0]),
      .size = *size,
      .referenceCount = *references,
      // Another state is the number behind the last one.
      .state = static_cast<std::uint32_t>(std::ranges::find(kStates, tokens[4]) - kStates.begin()),
      .offset = *offset,
  };
  return ModuleResult::kParsed;
}

std::optional<std::uint64_t> ParseSectionAddress(std::string_view text) {
  std::uint64_t address = 0;
  if (!(Extractor(text, 16) >> address)) return std::nullopt;
  return address;
}

std::optional<zym::types::string16_t> ParseCmdline(std::string_view text) {
  std::optional<zym::types::string16_t> result = zym::Utf8ToUtf16(text);
  if (!result) return result;
  std::ranges::replace(*result, u'\0', u' ');
  if (result->ends_with(u' ')) result->pop_back();
  return result;
}

std::optional<unsigned int> ParseProcessName(std::string_view name) {
  return ToNumber<unsigned int>(name);
}

}  // namespace qor::procfs
