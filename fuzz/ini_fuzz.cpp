// The ini reader, with any bytes.
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

#include "qor_common/ini.h"

namespace {

using boost::property_tree::ptree;

void Require(bool condition) {
  if (!condition) std::abort();
}

bool IsMessage(std::string_view text) {
  return text == "'=' character not found in line" || text == "unmatched '['" ||
         text == "duplicate section name" || text == "key expected";
}

// Keys are there once, have a name, and hold nothing below them; only a section does.
void CheckTree(const ptree& tree, int depth) {
  for (const auto& [key, child] : tree) {
    Require(tree.count(key) == 1);
    Require(child.empty() || (depth == 0 && child.data().empty()));
    Require(key.find('\n') == std::string::npos && child.data().find('\n') == std::string::npos);
    CheckTree(child, depth + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream stream(std::string(reinterpret_cast<const char*>(data), size));
  ptree tree;
  tree.put("old", 1);
  try {
    qor::tools::ReadIni(stream, tree);
    CheckTree(tree, 0);
  } catch (const boost::property_tree::ini_parser_error& error) {
    Require(IsMessage(error.message()));
    Require(tree.size() == 1 && tree.get<int>("old") == 1);
  }
  return 0;
}
