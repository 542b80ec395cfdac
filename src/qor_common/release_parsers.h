// The texts of release files as facts about the machine.
#pragma once

#include <string>

#include "qor_common/os_info.h"

namespace qor {

// `info` is filled on success alone. ZYM_E_NOT_MATCHED: the text is of another kind. May throw what the ini
// reader throws.
using ReleaseParser = zym::result_t (*)(const std::string& text, OsInfo& info);

zym::result_t ParseOsRelease(const std::string& text, OsInfo& info);
zym::result_t ParseLsbRelease(const std::string& text, OsInfo& info);
zym::result_t ParseReleaseLine(const std::string& text, OsInfo& info);
zym::result_t ParseSuse(const std::string& text, OsInfo& info);

}  // namespace qor
