#include "qor_common/release_parsers.h"

#include <boost/property_tree/ptree.hpp>
#include <boost/regex.hpp>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

#include "qor_common/ini.h"

namespace qor {
namespace {

using boost::property_tree::ptree;

ptree ReadKeys(const std::string& text) {
  ptree tree;
  std::istringstream stream(text);
  tools::ReadIni(stream, tree);
  return tree;
}

// Not ptree::get, for which a dot in a key begins a path.
std::optional<std::string> Find(const ptree& tree, const char* key) {
  const auto found = tree.find(key);
  return found != tree.not_found() ? std::optional(found->second.data()) : std::nullopt;
}

}  // namespace

zym::result_t ParseOsRelease(const std::string& text, OsInfo& info) {
  const ptree tree = ReadKeys(text);
  const auto name = Find(tree, "NAME");
  auto version = Find(tree, "VERSION_ID");
  if (!version) version = Find(tree, "RELEASE");
  const auto description = Find(tree, "PRETTY_NAME");
  if (!name || !description) return zym::ZYM_E_NOT_MATCHED;
  info = {.name = *name, .version = version.value_or(""), .description = *description};
  return zym::ZYM_OK;
}

zym::result_t ParseLsbRelease(const std::string& text, OsInfo& info) {
  const ptree tree = ReadKeys(text);
  const auto name = Find(tree, "DISTRIB_ID");
  const auto version = Find(tree, "DISTRIB_RELEASE");
  const auto description = Find(tree, "DISTRIB_DESCRIPTION");
  if (!name || !version || !description) return zym::ZYM_E_NOT_MATCHED;
  info = {.name = *name, .version = *version, .description = *description};
  return zym::ZYM_OK;
}

zym::result_t ParseReleaseLine(const std::string& text, OsInfo& info) {
  constexpr std::string_view kRelease = " release ";
  const std::size_t at = text.find(kRelease);
  if (at == std::string::npos) return zym::ZYM_E_NOT_MATCHED;
  std::string version = text.substr(at + kRelease.size());
  version.erase(version.find_last_not_of(" \t\r\n") + 1);
  info = {.name = text.substr(0, at), .version = std::move(version), .description = text};
  return zym::ZYM_OK;
}

zym::result_t ParseSuseRelease(const std::string& text, OsInfo& info) {
  // A dot that matched a line end, as this library's dot does by default, would take the patch level into the
  // version.
  static const boost::regex pattern(R"(^(.+)\nVERSION\s*=\s*(.+)(?:\nPATCHLEVEL\s*=\s*(.+))?)",
                                    boost::regex::perl | boost::regex::no_mod_s);
  boost::smatch match;
  if (!boost::regex_search(text, match, pattern)) return zym::ZYM_E_NOT_MATCHED;
  std::string version = match[2];
  if (match[3].matched) version += "." + match[3].str();
  info = {.name = match[1], .version = std::move(version), .description = text};
  return zym::ZYM_OK;
}

}  // namespace qor
