// Small facts about files: whose they are, and what may be done with them.
#pragma once

#include <string>
#include <string_view>

#include "zym/io.h"

namespace qor::tools {

// What stands for a path that is too deep to be expressed.
inline constexpr std::string_view kPathIsTooLong = "<PATH IS TOO LONG>";
inline constexpr std::u16string_view kPathIsTooLong16 = u"<PATH IS TOO LONG>";

// The path is the placeholder, as a whole.
bool IsDeepNestedFile(std::string_view path);
bool IsDeepNestedFile(std::u16string_view path);

// The file is one of the product's own executables: by device and inode, so that a hard link to one is
// trusted and a file that merely has a similar name is not.
bool IsTrustedExecutable(const std::string& path);

// Every bit of `requested` is in `available`.
bool IsAccessOk(zym::io_access_mode::Type requested, zym::io_access_mode::Type available);

// The path without links, "." and "..". Throws zym::SystemException.
std::string Realpath(const std::string& path);

// Fixed paths of the product.
inline constexpr const char* kResponsePath = "/opt/quelmarin/vorn/bin/response";
inline constexpr const char* kInstallCurrentPath = "/var/opt/quelmarin/vorn/install-current";
inline constexpr const char* kUpgradeIniPath = "/var/opt/quelmarin/vorn/upgrade.ini";
inline constexpr const char* kContainerEnvPath = "/var/opt/quelmarin/vorn/private/.containerenv";

}  // namespace qor::tools
