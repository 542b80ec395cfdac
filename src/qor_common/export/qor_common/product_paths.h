// The places of the product, and its own executables.
#pragma once

#include <string>

namespace qor::product_paths {

// The product's own executables, in the order in which a file is compared with them.
const std::string& GetDaemon();
const std::string& GetControlTool();
const std::string& GetGraphicalClient();
const std::string& GetBrelsh();
const std::string& GetBrelshControl();
const std::string& GetBrelshUpdate();
const std::string& GetManagementAgent();

// Not one of the trusted ones.
const std::string& GetResponseTool();
const std::string& GetLauncher();

const std::string& GetCurrentInstallation();
const std::string& GetUpgradeSettings();
const std::string& GetContainerMark();

}  // namespace qor::product_paths

namespace qor::tools {

// The file is one of the product's own executables: the same file by device and inode, whatever its name, so
// that a hard link to one is trusted and a look-alike isn't. A file that can't be asked for is not.
bool IsTrustedExecutable(const std::string& path);

}  // namespace qor::tools
