#include "qor_common/ini.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <istream>
#include <string>
#include <string_view>

namespace qor::tools {
namespace {

using boost::property_tree::ptree;

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n\v\f";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

[[noreturn]] void Fail(const char* message, unsigned long line) {
  throw boost::property_tree::ini_parser_error(message, "", line);
}

ptree& AddSection(ptree& tree, std::string_view line, unsigned long number) {
  const std::size_t end = line.find(']');
  if (end == std::string_view::npos) Fail("unmatched '['", number);
  const std::string name(Trim(line.substr(1, end - 1)));
  if (tree.find(name) != tree.not_found()) Fail("duplicate section name", number);
  return tree.push_back({name, ptree()})->second;
}

// A key that comes again replaces its value: release files that say a thing twice mean the later one.
void AddKey(ptree& section, std::string_view line, unsigned long number) {
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) Fail("'=' character not found in line", number);
  const std::string key(Trim(line.substr(0, equals)));
  if (key.empty()) Fail("key expected", number);
  const std::string value(Trim(line.substr(equals + 1)));
  if (const auto found = section.find(key); found != section.not_found())
    found->second.data() = value;
  else
    section.push_back({key, ptree(value)});
}

}  // namespace

void ReadIni(std::istream& stream, ptree& tree) {
  ptree result;
  ptree* section = &result;
  std::string text;
  unsigned long number = 0;
  while (std::getline(stream, text)) {
    ++number;
    const std::string_view line = Trim(text);
    if (line.empty() || line.front() == ';' || line.front() == '#') continue;
    if (line.front() == '[')
      section = &AddSection(result, line, number);
    else
      AddKey(*section, line, number);
  }
  if (stream.bad()) Fail("read error", number);
  tree.swap(result);
}

}  // namespace qor::tools
