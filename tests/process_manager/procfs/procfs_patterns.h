// The texts of /proc parsed as slowly as it goes: by the patterns themselves, and by streams. What the
// hand-written parsers are compared with, by tests and by fuzzing.
#pragma once

#include <boost/regex.hpp>
#include <cstdint>
#include <cstdlib>
#include <locale>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "process_manager/proc_parser.h"
#include "process_manager/procfs/procfs_text.h"

namespace procfs_patterns {

using namespace qor::procfs;

inline bool Finds(std::string_view line, const boost::regex& pattern, boost::cmatch& match) {
  // A line is all of the text: what looks like the end of another line inside of it is a character.
  return boost::regex_search(line.data(), line.data() + line.size(), match, pattern,
                             boost::match_default | boost::match_single_line);
}

template <class N>
N Number(const boost::csub_match& group, bool hexadecimal) {
  std::istringstream stream(group.str());
  stream.imbue(std::locale::classic());
  if (hexadecimal) stream >> std::hex;
  N value{};
  return stream >> value ? value : N{};
}

inline Maps ParseMaps(std::string_view text) {
  static const boost::regex pattern(
      "^([0-9a-fA-F]+)-([0-9a-fA-F]+)\\s+([-rwxps]+)\\s+([0-9a-fA-F]+)\\s+([0-9a-fA-F]+):([0-9a-fA-F]+)"
      "\\s+([0-9]+)\\s*(.+)?$");
  Maps maps;
  ForEachLine(text, [&](std::string_view line) {
    boost::cmatch match;
    if (!Finds(line, pattern, match)) return true;
    auto entry = std::make_shared<MapsEntry>();
    entry->begin = Number<std::uint64_t>(match[1], true);
    entry->end = Number<std::uint64_t>(match[2], true);
    entry->permissions = PermissionsOf(match[3].str());
    entry->protection = ProtectionOf(entry->permissions);
    entry->offset = Number<std::uint64_t>(match[4], true);
    entry->deviceMajor = Number<std::uint32_t>(match[5], true);
    entry->deviceMinor = Number<std::uint32_t>(match[6], true);
    entry->inode = Number<std::uint32_t>(match[7], false);
    entry->path = match[8].str();
    maps.emplace(entry->begin, entry);
    return true;
  });
  return maps;
}

inline IOMemMap ParseIOMemMap(std::string_view text) {
  static const boost::regex pattern("\\s*([0-9a-fA-F]+)-([0-9a-fA-F]+)\\s+:\\s+(.*)$");
  IOMemMap map;
  ForEachLine(text, [&](std::string_view line) {
    boost::cmatch match;
    if (Finds(line, pattern, match))
      map.push_back(
          {Number<std::uint64_t>(match[1], true), Number<std::uint64_t>(match[2], true), match[3].str()});
    return true;
  });
  return map;
}

inline std::optional<IOCounters> ParseIOCounters(std::string_view text) {
  static const char* const names[] = {
      "rchar", "wchar", "syscr", "syscw", "read_bytes", "write_bytes", "cancelled_write_bytes"};
  static const std::map<std::string, boost::regex> patterns = [] {
    std::map<std::string, boost::regex> result;
    for (const char* name : names)
      result.emplace(name, boost::regex("^(" + std::string(name) + "):\\s+([0-9]+)"));
    return result;
  }();
  std::map<std::string, std::uint64_t> values;
  int missing = 7;
  bool inRange = true;
  ForEachLine(text, [&](std::string_view line) {
    for (const auto& [name, pattern] : patterns) {
      boost::cmatch match;
      if (!Finds(line, pattern, match)) continue;
      std::istringstream stream(match[2].str());
      inRange = static_cast<bool>(stream >> values[match[1].str()]) && inRange;
      --missing;
    }
    return true;
  });
  if (missing != 0 || !inRange || values.size() != 7) return std::nullopt;
  return IOCounters{values["rchar"],
                    values["wchar"],
                    values["syscr"],
                    values["syscw"],
                    values["read_bytes"],
                    values["write_bytes"],
                    values["cancelled_write_bytes"]};
}

inline std::pair<StatResult, Stat> ParseStat(std::string_view text) {
  Stat stat;
  std::istringstream stream{std::string(text)};
  stream.imbue(std::locale::classic());
  stream >> stat.pid;
  const std::size_t open = text.find('(');
  const std::size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || open > close)
    return {StatResult::kNoComm, stat};
  stat.comm = text.substr(open + 1, close - open - 1);
  stream.seekg(static_cast<std::streamoff>(close + 1));
  stream >> stat.state >> stat.ppid >> stat.pgrp >> stat.session >> stat.tty_nr >> stat.tpgid >> stat.flags;
  stream >> stat.minflt >> stat.cminflt >> stat.majflt >> stat.cmajflt >> stat.utime >> stat.stime;
  stream >> stat.cutime >> stat.cstime >> stat.priority >> stat.nice >> stat.num_threads >> stat.itrealvalue;
  stream >> stat.starttime >> stat.vsize >> stat.rss >> stat.rsslim;
  return {stream ? StatResult::kParsed : StatResult::kBadField, stat};
}

// --- records as tuples, to compare them ---

inline auto Fields(const Stat& s) {
  return std::make_tuple(
      std::make_tuple(s.pid, s.comm, s.state, s.ppid, s.pgrp, s.session, s.tty_nr, s.tpgid, s.flags, s.minflt,
                      s.cminflt, s.majflt, s.cmajflt),
      std::make_tuple(s.utime, s.stime, s.cutime, s.cstime, s.priority, s.nice, s.num_threads, s.itrealvalue,
                      s.starttime, s.vsize, s.rss, s.rsslim));
}
inline auto Fields(const IOCounters& c) {
  return std::make_tuple(c.rchar, c.wchar, c.syscr, c.syscw, c.read_bytes, c.write_bytes,
                         c.cancelled_write_bytes);
}
inline auto Fields(const MapsEntry& e) {
  return std::make_tuple(e.begin, e.end, e.permissions, e.protection, e.offset, e.deviceMajor, e.deviceMinor,
                         e.inode, e.path);
}
inline auto Fields(const IOMemRange& r) {
  return std::make_tuple(r.first, r.last, r.name);
}

inline bool Equal(const Maps& a, const Maps& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
    return x.first == y.first && Fields(*x.second) == Fields(*y.second);
  });
}
inline bool Equal(const IOMemMap& a, const IOMemMap& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const auto& x, const auto& y) { return Fields(x) == Fields(y); });
}

}  // namespace procfs_patterns
