#include "qor_common/product_paths.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/child_process.h"
#include "support/rights.h"

namespace qor {
namespace {

using test_support::RunInChild;
using test_support::WriteTextFile;
using tools::IsTrustedExecutable;

class ProductPaths : public testing::Test {
 protected:
  void SetUp() override { SKIP_IF(test_support::MissingMountRights()); }

  // Runs with an "/opt" that holds nothing but the installation of this test.
  static std::string WithOwnOpt(const std::function<std::string()>& body) {
    return RunInChild([&]() -> std::string {
      if (const auto missing = test_support::EnterPrivateMounts(); !missing.empty()) return missing;
      if (const auto missing = test_support::MountEmpty("/opt"); !missing.empty()) return missing;
      return body();
    });
  }

  static void Install(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    WriteTextFile(path, "program", 0755);
  }
};

TEST_F(ProductPaths, EachOfTheProductsExecutablesIsTrusted) {
  EXPECT_EQ(WithOwnOpt([]() -> std::string {
              for (const char* const path :
                   {"/opt/quelmarin/vorn/libexec/vorn", "/opt/quelmarin/vorn/bin/vorn-control",
                    "/opt/quelmarin/vorn/libexec/vorn-gui", "/opt/quelmarin/brelsh/bin/brelsh",
                    "/opt/quelmarin/brelsh/bin/brelsh-control", "/opt/quelmarin/brelsh/bin/brelsh-update",
                    "/opt/quelmarin/agent/bin/agent"}) {
                if (IsTrustedExecutable(path)) return std::string(path) + " before it is installed";
                Install(path);
                if (!IsTrustedExecutable(path)) return path;
              }
              return {};
            }),
            "");
}

TEST_F(ProductPaths, OtherProgramsOfTheProductAreNot) {
  EXPECT_EQ(WithOwnOpt([]() -> std::string {
              Install(product_paths::GetDaemon());
              for (const auto& path : {product_paths::GetResponseTool(), product_paths::GetLauncher()}) {
                Install(path);
                if (IsTrustedExecutable(path)) return path;
              }
              return {};
            }),
            "");
}

TEST_F(ProductPaths, AHardLinkToOneIsTrustedAndACopyIsNot) {
  EXPECT_EQ(WithOwnOpt([]() -> std::string {
              Install(product_paths::GetDaemon());
              if (::link(product_paths::GetDaemon().c_str(), "/opt/other") != 0) return "link";
              if (!IsTrustedExecutable("/opt/other")) return "the hard link";
              std::filesystem::copy_file(product_paths::GetDaemon(), "/opt/quelmarin/vorn/libexec/vorn2");
              if (IsTrustedExecutable("/opt/quelmarin/vorn/libexec/vorn2")) return "the copy";
              if (!IsTrustedExecutable("/opt/quelmarin/../quelmarin/vorn/libexec/./vorn"))
                return "another name";
              return IsTrustedExecutable("/proc/self/exe") ? "this program" : "";
            }),
            "");
}

TEST_F(ProductPaths, AFileThatCantBeAskedForIsNot) {
  EXPECT_EQ(WithOwnOpt([]() -> std::string {
              Install(product_paths::GetDaemon());
              if (IsTrustedExecutable("/opt/none")) return "missing";
              if (IsTrustedExecutable("")) return "empty";
              return IsTrustedExecutable(std::string(5000, 'x')) ? "too long" : "";
            }),
            "");
}

TEST(ProductPathsTable, HasTheInstallationsOwnFiles) {
  EXPECT_EQ(product_paths::GetResponseTool(), "/opt/quelmarin/vorn/bin/response");
  EXPECT_EQ(product_paths::GetLauncher(), "/opt/quelmarin/vorn/libexec/launcher");
  EXPECT_EQ(product_paths::GetCurrentInstallation(), "/var/opt/quelmarin/vorn/install-current");
  EXPECT_EQ(product_paths::GetUpgradeSettings(), "/var/opt/quelmarin/vorn/upgrade.ini");
  EXPECT_EQ(product_paths::GetContainerMark(), "/var/opt/quelmarin/vorn/private/.containerenv");
}

}  // namespace
}  // namespace qor
