// Parsers of the release files below /etc. Each parser takes the whole text of a file, which may
// be anything: it is not always text, and not always meant well.
#pragma once

#include <string>

#include "qor_common/os_info.h"
#include "zym/result.h"

namespace qor {

// All: ZYM_E_NOT_MATCHED says that the text isn't of the parser's form; `info` is left alone then. The two
// that read keys throw boost::property_tree::ini_parser_error for a text that is no ini text, and the SuSE
// parser std::runtime_error for one that the regular expression library gives up on.

// Needs NAME and PRETTY_NAME. The version is VERSION_ID, or RELEASE where that is absent, or empty: a rolling
// distribution has none. Values are taken as the ini reader gives them: quotes stay.
zym::result_t ParseOsRelease(const std::string& text, OsInfo& info);

// Needs DISTRIB_ID, DISTRIB_RELEASE and DISTRIB_DESCRIPTION. Quotes stay here too.
zym::result_t ParseLsbRelease(const std::string& text, OsInfo& info);

// "<name> release <version>". The version loses blanks and line ends at its end; the description is the whole
// text with its line end.
zym::result_t ParseReleaseLine(const std::string& text, OsInfo& info);

// A line with the name, then a line "VERSION = <version>", then, if there is one, a line "PATCHLEVEL = <n>",
// which becomes ".<n>" of the version. The description is the whole text.
zym::result_t ParseSuseRelease(const std::string& text, OsInfo& info);

}  // namespace qor
