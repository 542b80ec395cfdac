// Ini texts as a tree: sections hold keys.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <iosfwd>

namespace qor::tools {

// Reads "key=value" lines, which belong to the root or to the last "[section]" before them; lines that begin
// with
// ';' or '#' are comments. Keys and values lose the blanks around them and nothing else: quotes stay. A key
// that comes again in its section replaces the value. On a failure `tree` is left alone. Throws
// boost::property_tree::ini_parser_error with one of "'=' character not found in line", "read error",
// "unmatched '['", "duplicate section name", "key expected".
void ReadIni(std::istream& stream, boost::property_tree::ptree& tree);

}  // namespace qor::tools
