// Each parser of release files, with any bytes.
#include <boost/property_tree/ini_parser.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "qor_common/release_parsers.h"

namespace {

using qor::OsInfo;

void Require(bool condition) {
  if (!condition) std::abort();
}

bool Holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

void RequireUntouched(const OsInfo& info) {
  Require(info.name == "n" && info.version == "v" && info.description == "d");
}

// What a parser gives was in the text; when it fails, it has given nothing.
template <class Check>
void Run(zym::result_t (*parse)(const std::string&, OsInfo&), const std::string& text, const Check& check) {
  OsInfo info{.name = "n", .version = "v", .description = "d"};
  try {
    const zym::result_t result = parse(text, info);
    Require(result == zym::ZYM_OK || result == zym::ZYM_E_NOT_MATCHED);
    result == zym::ZYM_OK ? check(info) : RequireUntouched(info);
  } catch (const boost::property_tree::ini_parser_error&) {
    RequireUntouched(info);
  } catch (const std::runtime_error&) {
    Require(parse == &qor::ParseSuseRelease);
    RequireUntouched(info);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto fromText = [&](const OsInfo& info) {
    Require(Holds(text, info.name) && Holds(text, info.version) && Holds(text, info.description));
  };
  Run(&qor::ParseOsRelease, text, fromText);
  Run(&qor::ParseLsbRelease, text, fromText);
  Run(&qor::ParseReleaseLine, text, [&](const OsInfo& info) {
    Require(text.starts_with(info.name + " release " + info.version) && info.description == text);
  });
  Run(&qor::ParseSuseRelease, text, [&](const OsInfo& info) {
    Require(Holds(text, info.name + "\nVERSION") && info.description == text);
    Require(!info.name.empty() && !info.version.empty());
  });
  return 0;
}
