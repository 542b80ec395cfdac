// The reader of /proc on files that are cut, empty or hostile.
#include "process_manager/procfs/proc_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "support/child.h"
#include "support/fresh_process.h"
#include "support/temp_directory.h"
#include "tests/process_manager/procfs/proc_parser_fixture.h"

namespace qor::procfs {
namespace {

// Every operation that reads a file below the root, by the name of that file.
struct FileReader {
  const char* file;
  std::function<zym::result_t(ProcParser&)> read;
};

std::vector<FileReader> FileReaders() {
  constexpr PidType kPid = 77;
  return {
      {"77/stat",
       [](ProcParser& parser) {
         Stat stat;
         return parser.GetStat(kPid, stat);
       }},
      {"77/io",
       [](ProcParser& parser) {
         IOCounters counters{.rchar = 1, .cancelled_write_bytes = 2};
         const zym::result_t result = parser.GetIOCounters(kPid, counters);
         if (result != zym::ZYM_OK) {
           EXPECT_TRUE(counters.rchar == 1 && counters.cancelled_write_bytes == 2) << "never half filled";
         }
         return result;
       }},
      {"77/maps",
       [](ProcParser& parser) {
         Maps maps;
         return parser.GetMaps(kPid, maps);
       }},
      {"77/cmdline",
       [](ProcParser& parser) {
         zym::types::string16_t cmdline;
         const zym::result_t result = parser.GetCmdline(kPid, cmdline);
         EXPECT_EQ(result == zym::ZYM_FALSE,
                   ZYM_SUCCEEDED(result) && cmdline.empty() && result != zym::ZYM_OK);
         return result;
       }},
      {"77/status",
       [](ProcParser& parser) {
         Creds creds;
         return parser.GetCreds(kPid, creds);
       }},
      {"77/environ",
       [](ProcParser& parser) {
         std::string value = "untouched";
         EXPECT_EQ(parser.GetEnvironmentVariable(kPid, "no such name", value), zym::ZYM_OK);
         EXPECT_EQ(value, "untouched");
         zym::types::vector_t<zym::types::string_t> variables;
         const zym::result_t result = parser.GetEnvironmentVariables(kPid, variables);
         for (const zym::types::string_t& variable : variables) EXPECT_FALSE(variable.empty());
         return result;
       }},
      {"77/comm",
       [](ProcParser& parser) {
         std::string comm;
         return parser.GetComm(kPid, comm);
       }},
      {"cmdline",
       [](ProcParser& parser) {
         zym::types::string16_t cmdline;
         return parser.GetCmdline(0, cmdline);
       }},
      {"iomem",
       [](ProcParser& parser) {
         IOMemMap map;
         return parser.GetIOMemMap(map);
       }},
      {"modules",
       [](ProcParser& parser) {
         ModulesList modules;
         return parser.GetModules(modules);
       }},
  };
}

// What each file gives as long as its bytes are text: a result of the reader's own table.
bool IsAResultOfTheReaders(zym::result_t result) {
  return result == zym::ZYM_OK || result == zym::ZYM_FALSE || result == zym::ZYM_E_UNSPECIFIED;
}

TEST(ProcParser, AnEmptyFileIsAResultOfItsOwnForEachOperation) {
  WithFakeRoot([](FakeRoot& root) {
    const std::map<std::string, zym::result_t> expected = {
        {"77/stat", zym::ZYM_E_UNSPECIFIED},
        {"77/io", zym::ZYM_E_UNSPECIFIED},
        {"77/maps", zym::ZYM_OK},
        {"77/cmdline", zym::ZYM_FALSE},
        {"77/status", zym::ZYM_E_UNSPECIFIED},
        {"77/environ", zym::ZYM_OK},
        {"77/comm", zym::ZYM_E_UNSPECIFIED},
        {"cmdline", zym::ZYM_FALSE},
        {"iomem", zym::ZYM_OK},
        {"modules", zym::ZYM_OK},
    };
    for (const auto& [file, read] : FileReaders()) {
      root.tree.Write(file, "");
      EXPECT_EQ(read(*root.parser), expected.at(file)) << file;
    }
  });
}

// The files of this very process, and such of the kernel, cut behind each of their first bytes, and then here
// and there. What the texts mean then is held where they are parsed.
TEST(ProcParser, AFileThatIsCutAnywhereGivesAResultOfTheTable) {
  WithFakeRoot([](FakeRoot& root) {
    constexpr std::size_t kMost = 300;
    root.tree.Write("sys/kernel/kptr_restrict", "1\n");  // for an offset that is cut to 0
    root.tree.Write("sys/kernel/perf_event_paranoid", "2\n");
    for (const auto& [file, read] : FileReaders()) {
      std::string text = "dm_mod 159744 3 dm_mirror,dm_log, Live 0xffffffffc0311000\n";
      if (std::string_view(file) == "iomem")
        text = "00001000-0009fbff : System RAM\n  00001000-00002fff : part\n";
      if (std::string_view(file).starts_with("77/"))
        text = test_support::ReadTextFile("/proc/self/" + std::string(file).substr(3));
      if (std::string_view(file) == "cmdline") text = "root=/dev/sda1 ro quiet\n";
      for (std::size_t length = 0; length <= std::min(text.size(), kMost); length += length < 80 ? 1 : 11) {
        root.tree.Write(file, text.substr(0, length));
        const zym::result_t result = read(*root.parser);
        EXPECT_TRUE(IsAResultOfTheReaders(result))
            << file << " of " << length << " bytes: " << std::hex << result;
      }
      root.tree.Write(file, text);
      EXPECT_EQ(read(*root.parser), zym::ZYM_OK) << file << " as a whole";
    }
  });
}

TEST(ProcParser, AHostileFileGivesAResultAndLetsNothingOut) {
  WithFakeRoot([](FakeRoot& root) {
    std::string allBytes(256, '\0');
    for (std::size_t i = 0; i < allBytes.size(); ++i) allBytes[i] = static_cast<char>(i);
    std::vector<std::string> contents = {allBytes,
                                         "77 ()",
                                         "77 )(",
                                         "((((",
                                         "))))",
                                         "\xff\xfe\n",
                                         "Uid:\nGid:\nGroups:\n",
                                         "Uid:\t99999999999999999999 -1 0 0\nGid:\t0 0 0 0\nGroups:\t- 1\n",
                                         "ffffffffffffffffffff-0 rwxs 0 0:0 0\n",
                                         "0-0 : \n"};
    for (const char c : {'x', '\0', '\n', '(', ')', '9', '-', ' ', '=', '\xff'})
      contents.emplace_back(std::size_t{1} << 20, c);
    for (const auto& [file, read] : FileReaders()) {
      for (const std::string& content : contents) {
        root.tree.Write(file, content);
        zym::result_t result = zym::ZYM_OK;
        EXPECT_NO_THROW(result = read(*root.parser)) << file;
        // Only what is to become text can be none, which is an exception's result.
        const bool mayBeNoText = std::string_view(file).ends_with("cmdline");
        EXPECT_TRUE(IsAResultOfTheReaders(result) ||
                    (mayBeNoText && result == zym::ZYM_E_EXCEPTION_WITHOUT_RESULT))
            << file << " of " << content.size() << " bytes from \"" << content.substr(0, 8)
            << "\": " << std::hex << result;
      }
    }
  });
}

}  // namespace
}  // namespace qor::procfs
