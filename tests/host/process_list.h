// Lists of processes: pmhost's, and another's to compare with.
#pragma once

#include <rapidjson/document.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/run_pmhost.h"

namespace host_tests {

// What stands for bytes that are no text is no JSON to its strict reader: it is left as it is written.
inline rapidjson::Document ParseLine(std::string line) {
  for (std::size_t at = 0; (at = line.find("\\udc", at)) != std::string::npos; at += 5) line.insert(at, "\\");
  rapidjson::Document object;
  if (object.Parse(line.c_str()).HasParseError()) throw std::runtime_error("not JSON: " + line);
  return object;
}

inline std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
    lines.push_back(text.substr(begin, end - begin));
  if (begin != text.size()) throw std::runtime_error("the last line has no end");
  return lines;
}

using ProcessObjects = std::map<pid_t, rapidjson::Document>;

// Of the lines of `pmhost ps --json`.
inline ProcessObjects ObjectsOf(const std::string& output) {
  ProcessObjects objects;
  for (const std::string& line : LinesOf(output)) {
    rapidjson::Document object = ParseLine(line);
    const pid_t pid = object["pid"].GetInt();
    if (!objects.emplace(pid, std::move(object)).second) throw std::runtime_error("listed twice: " + line);
  }
  return objects;
}

// What ps(1) of procps tells of a process.
struct PsRow {
  pid_t parent = 0;
  unsigned user = 0;  // the real one
  bool ended = false;
  std::time_t start = 0;
  std::string command;  // unprintable bytes are question marks

  bool operator==(const PsRow&) const = default;
};

inline std::map<pid_t, PsRow> RunPs() {
  const std::string command =
      "LC_ALL=C TZ=UTC " PS_PROGRAM " -e -ww -o pid= -o ppid= -o ruid= -o stat= -o lstart= -o args=";
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), &::pclose);
  if (!pipe) throw std::runtime_error("popen");
  std::string text;
  std::array<char, 65536> buffer{};
  for (std::size_t count = 0; (count = std::fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0;)
    text.append(buffer.data(), count);
  std::map<pid_t, PsRow> rows;
  for (const std::string& line : LinesOf(text)) {
    PsRow row;
    pid_t pid = 0;
    char state[16] = {};
    int lstart = 0;
    if (std::sscanf(line.c_str(), "%d %d %u %15s %n", &pid, &row.parent, &row.user, state, &lstart) != 4)
      throw std::runtime_error("ps: " + line);
    std::tm time{};
    const char* const end = ::strptime(line.c_str() + lstart, "%a %b %e %H:%M:%S %Y", &time);
    if (end == nullptr) throw std::runtime_error("ps: " + line);
    row.ended = state[0] == 'Z';
    row.start = ::timegm(&time);
    row.command = *end == '\0' ? "" : end + 1;
    rows.emplace(pid, std::move(row));
  }
  return rows;
}

// As ps(1) prints a text in the C locale.
inline std::string AsPsPrintsIt(std::string text) {
  for (char& byte : text)
    if (byte < 0x20 || byte == 0x7f) byte = '?';  // a byte beyond ASCII is negative
  return text;
}

// Seconds since 1970.
inline std::time_t SecondOf(const std::string& rfc3339) {
  std::tm time{};
  if (::strptime(rfc3339.c_str(), "%Y-%m-%dT%H:%M:%S.", &time) == nullptr)
    throw std::runtime_error("no time: " + rfc3339);
  return ::timegm(&time);
}

}  // namespace host_tests
