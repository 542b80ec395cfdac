// What no command takes.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "host/run_pmhost.h"

namespace {

using host_tests::Finished;

struct Usage {
  const char* command;
  std::vector<std::vector<std::string>> bad;
};
void PrintTo(const Usage& usage, std::ostream* out) {
  *out << usage.command;
}

class PmhostUsage : public testing::TestWithParam<Usage> {};

TEST_P(PmhostUsage, BadUsageExitsWithTwoAndSaysWhy) {
  for (const std::vector<std::string>& arguments : GetParam().bad) {
    const Finished run(arguments);
    EXPECT_EQ(run.status, 2) << testing::PrintToString(arguments);
    EXPECT_NE(run.errors, "") << testing::PrintToString(arguments);
    EXPECT_EQ(run.output, "") << testing::PrintToString(arguments);
  }
}

INSTANTIATE_TEST_SUITE_P(
    OfEveryCommand, PmhostUsage,
    testing::Values(
        Usage{"Pmhost",
              {{"--no-such-option"},
               {"no-such-command"},
               {"--trace", "1"},
               {"--exclude-process", "bin/sh", "os"},
               {"--exclude-process", "", "os"}}},
        Usage{"Watch",
              {{"watch", "--for", "soon"},
               {"watch", "--for", "nan"},
               {"watch", "--for", "inf"},
               {"watch", "--for", "-1"},
               {"watch", "--count", "1e3"},
               {"watch", "--count", "0"}}},
        Usage{"Kill",
              {{"kill"},
               {"kill", ""},
               {"kill", "one"},
               {"kill", "-1"},
               {"kill", "-9", "1"},
               {"kill", "1.5"},
               {"kill", "2147483648"},
               {"kill", "4294967294"},
               {"kill", "4294967295"},
               {"kill", "4294967297"},
               {"kill", "4194305", "--wait"},
               {"kill", "4194305", "--wait", "-1"},
               {"kill", "4194305", "--wait", "soon"},
               {"kill", "4194305", "--wait", "4294967296"},
               {"kill", "4194305", "4194306"}}},
        Usage{"Memory",
              {{"memory"},
               {"memory", "0"},
               {"memory", "one"},
               {"memory", "1", "--raw"},
               {"memory", "1", "--read", "0x1000"},
               {"memory", "1", "--read", "0x1000", "all"},
               {"memory", "1", "--read", "7f00", "1"},
               {"memory", "1", "--read", "-1", "1"},
               {"memory", "1", "--read", "0xffffffffffffffff", "2"},
               {"memory", "1", "--read", "0x10000000000000000", "1"},
               {"memory", "1", "--read", "4096", "1", "--raw", "--json"}}},
        Usage{"Modules", {{"modules"}, {"modules", "0"}}},
        Usage{"Ps", {{"ps", "1"}, {"ps", "--trees"}, {"ps", "--tree", "--json"}, {"--json", "ps", "--tree"}}},
        Usage{"Show",
              {{"show"},
               {"show", ""},
               {"show", "one"},
               {"show", "1x"},
               {"show", "1.5"},
               {"show", "0x1"},
               {"show", " 1"},
               {"show", "+1"},
               {"show", "-1"},
               {"show", "2147483648"},
               {"show", "4294967295"},
               {"show", "4294967297"},
               {"show", "18446744073709551617"},
               {"show", "1", "2"},
               {"show", "1", "--unique", "1"},
               {"show", "--unique"},
               {"show", "--unique", "one"},
               {"show", "--unique", "-1"},
               {"show", "--unique", "18446744073709551616"}}},
        Usage{"Os", {{"os", "1"}, {"os", "--no-such-option"}}},
        Usage{"Features", {{"features", "1"}, {"features", "--no-such-option"}}}),
    [](const auto& usage) { return std::string(usage.param.command); });

}  // namespace
