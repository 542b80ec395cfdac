#include "process_manager/process/process_description.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/process_manager/process_cache/process_cache_fixture.h"

namespace qor::process_manager {
namespace {

// Answers with a given result, and remembers the categories it was asked about.
class Filter : public zym::object::Ifaces<zym::ITracerCategoryFilter> {
 public:
  explicit Filter(zym::result_t answer) : m_answer(answer) {}
  zym::result_t Check(std::uint32_t category) override {
    asked.push_back(category);
    return m_answer;
  }
  std::vector<std::uint32_t> asked;

 private:
  const zym::result_t m_answer;
};

Info Record() {
  Info info = ReadOf(1, 2, u"/bin/caf\u00e9");
  info.commandLine = CommandLine(u"caf\u00e9 --open");
  info.uniquePid = 0xffffffffffffffff;
  info.parentUniquePid = 4;
  info.creatorPid = 5;
  info.creatorUniquePid = 6;
  info.environment = {"A=1", "B=2"};
  return info;
}

std::string Open(const Info& info) {
  return DescribeProcess(info, zym::CreateObject<Filter>(zym::ZYM_OK).get());
}

bool Contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

TEST(ProcessDescription, TellsEveryFactInItsPlace) {
  EXPECT_EQ(Open(Record()),
            "pid: 1, upid: 18446744073709551615, ppid: 2, uppid: 4, cpid: 5, ucpid: 6, ruid: 1000, "
            "euid: 1001, rgid: 1002, egid: 1003, state: Created, flags: 0, exe: /bin/caf\u00e9, "
            "cmd: caf\u00e9 --open, env: A=1;B=2, nsmnt: 42");
}

TEST(ProcessDescription, TellsAnEmptyRecord) {
  EXPECT_EQ(Open(Info()),
            "pid: 0, upid: 0, ppid: 0, uppid: 0, cpid: 0, ucpid: 0, ruid: 4294967295, euid: 4294967295, "
            "rgid: 4294967295, egid: 4294967295, state: Starting, flags: 0, exe: , cmd: , env: , "
            "nsmnt: 18446744073709551615");
}

TEST(ProcessDescription, NamesTheStates) {
  const std::vector<std::pair<std::uint32_t, std::string>> cases = {
      {kStarting, "Starting"},     {kCreated, "Created"},  {2, "Unsupported (2)"},
      {kTerminated, "Terminated"}, {4, "Unsupported (4)"}, {0xffffffff, "Unsupported (4294967295)"},
  };
  for (const auto& [state, text] : cases) {
    Info info;
    info.state = state;
    EXPECT_TRUE(Contains(Open(info), ", state: " + text + ", flags")) << state;
  }
}

TEST(ProcessDescription, TheBarBeforeSystemStandsAlsoAlone) {
  const std::vector<std::pair<std::uint32_t, std::string>> cases = {
      {0, "0"},
      {kNoBackingImage, "NoBackingImage"},
      {kSystemProcess, "|System"},
      {kSystemProcess | kNoBackingImage, "NoBackingImage|System"},
      {2, ""},
  };
  for (const auto& [flags, text] : cases) {
    Info info;
    info.flags = flags;
    EXPECT_TRUE(Contains(Open(info), ", flags: " + text + ", exe")) << flags;
  }
}

TEST(ProcessDescription, AnEmptyVariableKeepsItsSeparator) {
  Info info;
  info.environment = {"", "A=1", ""};
  EXPECT_TRUE(Contains(Open(info), ", env: ;A=1;, nsmnt")) << Open(info);
}

TEST(ProcessDescription, AsksTheFilterAboutSensitiveText) {
  const auto filter = zym::CreateObject<Filter>(zym::ZYM_OK);
  DescribeProcess(Record(), filter.get());
  ASSERT_FALSE(filter->asked.empty());
  for (const std::uint32_t category : filter->asked) EXPECT_EQ(category, 1U);
}

TEST(ProcessDescription, HoldsSensitiveTextBackUnlessTheFilterAnswersZero) {
  for (const zym::result_t answer : {zym::ZYM_FALSE, zym::result_t{2}, zym::ZYM_E_ACCESS_DENIED}) {
    const std::string text = DescribeProcess(Record(), zym::CreateObject<Filter>(answer).get());
    EXPECT_TRUE(Contains(text,
                         ", exe: /bin/caf\u00e9, cmd: skipped by privacy policy, "
                         "env: skipped by privacy policy, nsmnt: 42"))
        << text;
    EXPECT_FALSE(Contains(text, "--open"));
    EXPECT_FALSE(Contains(text, "A=1"));
  }
}

TEST(ProcessDescription, HoldsSensitiveTextBackWithoutAFilter) {
  const std::string text = DescribeProcess(Record(), nullptr);
  EXPECT_TRUE(Contains(text, ", cmd: skipped by privacy policy, env: skipped by privacy policy, nsmnt: 42"));
}

TEST(ProcessDescription, ALoneSurrogateIsReplacedAndNotLost) {
  Info info;
  info.imagePath = u"/a";
  info.imagePath += char16_t{0xd800};
  info.imagePath += u"b";
  EXPECT_TRUE(Contains(Open(info),
                       ", exe: /a\ufffd"
                       "b, cmd"));
}

}  // namespace
}  // namespace qor::process_manager
