#include "qor_common/product_paths.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>

namespace qor::product_paths {

const std::string& GetDaemon() {
  static const std::string path = "/opt/quelmarin/vorn/libexec/vorn";
  return path;
}

const std::string& GetControlTool() {
  static const std::string path = "/opt/quelmarin/vorn/bin/vorn-control";
  return path;
}

const std::string& GetGraphicalClient() {
  static const std::string path = "/opt/quelmarin/vorn/libexec/vorn-gui";
  return path;
}

const std::string& GetBrelsh() {
  static const std::string path = "/opt/quelmarin/brelsh/bin/brelsh";
  return path;
}

const std::string& GetBrelshControl() {
  static const std::string path = "/opt/quelmarin/brelsh/bin/brelsh-control";
  return path;
}

const std::string& GetBrelshUpdate() {
  static const std::string path = "/opt/quelmarin/brelsh/bin/brelsh-update";
  return path;
}

const std::string& GetManagementAgent() {
  static const std::string path = "/opt/quelmarin/agent/bin/agent";
  return path;
}

const std::string& GetResponseTool() {
  static const std::string path = "/opt/quelmarin/vorn/bin/response";
  return path;
}

const std::string& GetLauncher() {
  static const std::string path = "/opt/quelmarin/vorn/libexec/launcher";
  return path;
}

const std::string& GetCurrentInstallation() {
  static const std::string path = "/var/opt/quelmarin/vorn/install-current";
  return path;
}

const std::string& GetUpgradeSettings() {
  static const std::string path = "/var/opt/quelmarin/vorn/upgrade.ini";
  return path;
}

const std::string& GetContainerMark() {
  static const std::string path = "/var/opt/quelmarin/vorn/private/.containerenv";
  return path;
}

}  // namespace qor::product_paths

namespace qor::tools {

bool IsTrustedExecutable(const std::string& path) {
  using namespace product_paths;
  struct stat asked {};
  if (::fstatat(AT_FDCWD, path.c_str(), &asked, 0) != 0) return false;
  const std::array own = {&GetDaemon,        &GetControlTool,  &GetGraphicalClient, &GetBrelsh,
                          &GetBrelshControl, &GetBrelshUpdate, &GetManagementAgent};
  return std::any_of(own.begin(), own.end(), [&asked](const auto& getPath) {
    struct stat listed {};
    return ::fstatat(AT_FDCWD, getPath().c_str(), &listed, 0) == 0 && listed.st_dev == asked.st_dev &&
           listed.st_ino == asked.st_ino;
  });
}

}  // namespace qor::tools
