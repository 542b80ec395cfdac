// Release files, ini texts, and the other small files of /etc.
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>

#include "qor_common/accounts.h"
#include "qor_common/ini.h"
#include "qor_common/process_root.h"
#include "qor_common/release_parsers.h"
#include "zym/utf.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  constexpr qor::ReleaseParser kParsers[] = {&qor::ParseOsRelease, &qor::ParseLsbRelease,
                                             &qor::ParseReleaseLine, &qor::ParseSuse};
  switch (data[0] % 8) {
    case 4: {
      boost::property_tree::ptree tree;
      std::istringstream stream(text);
      try {
        qor::tools::ReadIni(stream, tree);
      } catch (const boost::property_tree::ini_parser_error&) {
      }
      break;
    }
    case 5:
      for (const qor::tools::User& user : qor::tools::ParsePasswd(text))
        if (user.name.empty()) __builtin_trap();
      qor::tools::ParseMinUid(text);
      break;
    case 6:
      if (!qor::tools::IsProcRootPath(text)) break;
      qor::tools::StripProcRoot(text);
      break;
    case 7:
      // What converts to UTF-16 converts back to the same bytes.
      if (const auto wide = zym::Utf8ToUtf16(text); wide && zym::Utf16ToUtf8(*wide) != text) __builtin_trap();
      break;
    default: {
      qor::OsInfo info;
      try {
        kParsers[data[0] % 8](text, info);
      } catch (const std::exception&) {
      }
      break;
    }
  }
  return 0;
}
