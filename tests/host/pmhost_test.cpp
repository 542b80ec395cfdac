// pmhost as a person and a script use it.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "host/run_pmhost.h"
#include "support/temp_directory.h"

namespace {

using host_tests::Pmhost;
using rapidjson::Document;

TEST(Pmhost, BadUsageExitsWithTwo) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--no-such-option"},
                                                    {"no-such-command"},
                                                    {"watch", "--for", "soon"},
                                                    {"--trace", "1"},
                                                    {"watch", "--count", "0"},
                                                    {"--exclude-process", "bin/sh", "os"},
                                                    {"--exclude-process", "", "os"}}) {
    Pmhost pmhost(arguments);
    EXPECT_EQ(pmhost.Wait(), 2) << arguments.front();
    EXPECT_NE(pmhost.Errors(), "");
  }
}

TEST(Pmhost, APatternOfProcessesThatIsNoneIsSaid) {
  Pmhost pmhost({"--exclude-process", "/usr/[ab", "os"});
  EXPECT_EQ(pmhost.Wait(), 2);
  EXPECT_NE(pmhost.Errors().find("'/usr/[ab' is no pattern: a '[' without its ']'"), std::string::npos);
}

TEST(Pmhost, PatternsOfProcessesMayBeGivenTwiceAndInAFile) {
  Pmhost pmhost({"--exclude-process", "/usr/**", "--exclude-process", "ssh*", "os", "--json"});
  EXPECT_EQ(pmhost.Wait(), 0);
  const test_support::TempDirectory directory;
  const std::string file = directory.Write("pmhost.ini", "exclude-process = [\"/usr/**\", \"ssh*\"]\n");
  Pmhost configured({"--config", file, "os", "--json"});
  EXPECT_EQ(configured.Wait(), 0);
  const std::string wrong = directory.Write("wrong.ini", "exclude-process = [\"/usr/**\", \"ssh[\"]\n");
  Pmhost refused({"--config", wrong, "os"});
  EXPECT_EQ(refused.Wait(), 2);
  EXPECT_NE(refused.Errors().find("'ssh[' is no pattern"), std::string::npos);
}

TEST(Pmhost, HelpAndVersionSucceed) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--help"}, {"--version"}, {"watch", "--help"}, {"os", "--help"}}) {
    Pmhost pmhost(arguments);
    EXPECT_EQ(pmhost.Wait(), 0) << arguments.front();
    EXPECT_NE(pmhost.Output(), "");
  }
}

TEST(Pmhost, AModuleThatIsNotThereIsNamed) {
  Pmhost pmhost({"--module", "/no/such/module.so", "watch"});
  EXPECT_EQ(pmhost.Wait(), 1);
  EXPECT_NE(pmhost.Errors().find("cannot load the module /no/such/module.so"), std::string::npos);
}

TEST(Pmhost, OsIsOneJsonObject) {
  Pmhost pmhost({"os", "--json"});
  Document os;
  ASSERT_FALSE(os.Parse(pmhost.ReadLine().c_str()).HasParseError());
  for (const char* name : {"name", "version", "description", "kernel", "workstation"})
    EXPECT_TRUE(os.HasMember(name)) << name;
  EXPECT_EQ(pmhost.Wait(), 0);
}

TEST(Pmhost, OsShowsValuesWithoutTheQuotesOfTheReleaseFile) {
  Pmhost pmhost({"os", "--json"});
  Document os;
  ASSERT_FALSE(os.Parse(pmhost.ReadLine().c_str()).HasParseError());
  for (const char* name : {"name", "version", "description"}) {
    ASSERT_TRUE(os[name].IsString() || os[name].IsNull()) << name;
    if (os[name].IsString()) {
      EXPECT_NE(os[name].GetString()[0], '"') << name;
    }
  }
}

TEST(Pmhost, OutputThatCannotBeWrittenIsAFailure) {
  Pmhost pmhost({"os"}, [] { ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO); });
  EXPECT_EQ(pmhost.Wait(), 1);
  EXPECT_EQ(pmhost.Errors(), "pmhost: cannot write the output: No space left on device\n");
}

TEST(Pmhost, AFileThatIsNoModuleIsNamed) {
  // Any library that is there: the C library of this process.
  Pmhost pmhost({"--module", "libc.so.6", "watch"}, [] {
    if (::chdir("/lib/x86_64-linux-gnu") != 0) ::_exit(126);
  });
  EXPECT_EQ(pmhost.Wait(), 1);
  EXPECT_NE(pmhost.Errors().find("/lib/x86_64-linux-gnu/libc.so.6 is no process manager module"),
            std::string::npos)
      << "a name without a slash is of the current directory";
}

TEST(Pmhost, OptionsComeFromAConfigurationFileToo) {
  const std::string path = testing::TempDir() + "pmhost_test.ini";
  std::ofstream(path) << "json=true\n";
  Pmhost pmhost({"--config", path, "os"});
  Document os;
  EXPECT_FALSE(os.Parse(pmhost.ReadLine().c_str()).HasParseError());
  EXPECT_EQ(pmhost.Wait(), 0);
  Pmhost missing({"--config", "/no/such/file.ini", "os"});
  EXPECT_EQ(missing.Wait(), 2);
  ::unlink(path.c_str());
}

TEST(Pmhost, FeaturesTellTheProcConnector) {
  PMHOST_NEEDS_ROOT();
  Pmhost pmhost({"features", "--json"});
  Document feature;
  ASSERT_FALSE(feature.Parse(pmhost.ReadLine().c_str()).HasParseError());
  EXPECT_STREQ(feature["feature"].GetString(), "ProcessMonitoring");
  EXPECT_STREQ(feature["technologies"][0].GetString(), "Netlink");
  EXPECT_EQ(pmhost.Wait(), 0);
}

TEST(Pmhost, AMissingRightIsNamed) {
  PMHOST_NEEDS_ROOT();
  Pmhost pmhost({"watch"}, host_tests::BecomeNobody);
  const int status = pmhost.Wait();
  EXPECT_EQ(status, 1);
  EXPECT_NE(pmhost.Errors().find("needs CAP_NET_ADMIN: run as root"), std::string::npos);
}

}  // namespace
