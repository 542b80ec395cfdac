#include "qor_common/release_parsers.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/regex.hpp>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

#include "qor_common/ini.h"

namespace qor {
namespace {

struct IniKeys {
  const char* name;
  const char* version;
  const char* otherVersion;  // where `version` is absent; null if there is none
  const char* description;
  bool needsVersion;
};

// Values are taken as the ini reader gives them: quotes stay.
zym::result_t ParseIni(const std::string& text, const IniKeys& keys, OsInfo& info) {
  boost::property_tree::ptree tree;
  std::istringstream stream(text);
  tools::ReadIni(stream, tree);
  // Keys are no paths: a dot in one means nothing.
  const auto get = [&tree](const char* key) -> std::optional<std::string> {
    const auto found = tree.find(key);
    return found != tree.not_found() ? std::optional(found->second.data()) : std::nullopt;
  };
  const std::optional<std::string> name = get(keys.name);
  std::optional<std::string> version = get(keys.version);
  if (!version && keys.otherVersion != nullptr) version = get(keys.otherVersion);
  const std::optional<std::string> description = get(keys.description);
  if (!name || !description || (keys.needsVersion && !version)) return zym::ZYM_E_NOT_MATCHED;
  info = {.name = *name, .version = version.value_or(""), .description = *description};
  return zym::ZYM_OK;
}

}  // namespace

zym::result_t ParseOsRelease(const std::string& text, OsInfo& info) {
  return ParseIni(text, {"NAME", "VERSION_ID", "RELEASE", "PRETTY_NAME", false}, info);
}

zym::result_t ParseLsbRelease(const std::string& text, OsInfo& info) {
  return ParseIni(text, {"DISTRIB_ID", "DISTRIB_RELEASE", nullptr, "DISTRIB_DESCRIPTION", true}, info);
}

// "<name> release <version>"
zym::result_t ParseReleaseLine(const std::string& text, OsInfo& info) {
  constexpr std::string_view kRelease = " release ";
  const std::size_t at = text.find(kRelease);
  if (at == std::string::npos) return zym::ZYM_E_NOT_MATCHED;
  std::string version = text.substr(at + kRelease.size());
  version.erase(version.find_last_not_of(" \t\r\n") + 1);
  info = {.name = text.substr(0, at), .version = std::move(version), .description = text};
  return zym::ZYM_OK;
}

zym::result_t ParseSuse(const std::string& text, OsInfo& info) {
  static const boost::regex pattern("^(.+)\\nVERSION\\s*=\\s*(.+)(?:\\nPATCHLEVEL\\s*=\\s*(.+))?",
                                    boost::regex::perl | boost::regex::no_mod_s);
  boost::smatch match;
  if (!boost::regex_search(text, match, pattern)) return zym::ZYM_E_NOT_MATCHED;
  std::string version = match[2];
  if (match[3].matched) version += "." + match[3].str();
  info = {.name = match[1], .version = std::move(version), .description = text};
  return zym::ZYM_OK;
}

}  // namespace qor
