// pmhost memory: the regions of a process, and what is in them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host/commands/arguments.h"
#include "host/run_pmhost.h"
#include "support/memory_actor.h"
#include "support/rights.h"

namespace {

using host_tests::BecomeNobody;
using host_tests::Finished;
using host_tests::Pmhost;
using rapidjson::Document;
using test_support::MapsLine;
using test_support::MemoryActor;

std::string Hex(std::uint64_t number) {
  char text[24];
  std::snprintf(text, sizeof(text), "0x%lx", number);
  return text;
}

std::string Text(const std::vector<std::uint8_t>& bytes) {
  return {bytes.begin(), bytes.end()};
}

TEST(PmhostMemory, TellsTheMapsFileEntryForEntry) {
  const MemoryActor actor;
  const std::vector<MapsLine> maps = test_support::ReadMaps(actor.Pid());
  Pmhost pmhost({"memory", std::to_string(actor.Pid()), "--json"});
  std::size_t i = 0;
  pmhost.ReadUntil([&](const Document& region) {
    if (i == maps.size()) {
      ADD_FAILURE() << "more regions than mappings";
      return true;
    }
    const MapsLine& line = maps[i++];
    EXPECT_EQ(region["base"].GetString(), std::to_string(line.begin));
    EXPECT_EQ(region["size"].GetString(), std::to_string(line.end - line.begin));
    EXPECT_TRUE(region["protection"].IsUint());
    EXPECT_EQ(region["state"].GetUint(), 3U);
    EXPECT_EQ(region["type"].GetUint(), 1U);
    if (line.path.empty())
      EXPECT_TRUE(region["path"].IsNull());
    else
      EXPECT_EQ(region["path"].GetString(), line.path);
    EXPECT_EQ(region.MemberCount(), 6U);
    return false;
  });
  EXPECT_EQ(i, maps.size());
  EXPECT_EQ(pmhost.Wait(), 0);
  EXPECT_EQ(pmhost.Errors(), "");
}

TEST(PmhostMemory, TellsColumnsToAPerson) {
  const MemoryActor actor;
  const Finished run({"memory", std::to_string(actor.Pid())});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output.substr(0, 4), "BASE");
  char row[128];
  std::snprintf(row, sizeof(row), "0x%016lx  %14lu  %-20s  %s\n", actor.Get("file").address,
                actor.Get("file").length, "read", actor.File().c_str());
  EXPECT_NE(run.output.find(row), std::string::npos) << run.output;
}

TEST(PmhostMemory, ReadsRawWhatTheProcessToldOfItself) {
  const MemoryActor actor;
  for (const char* name :
       {"anonymous", "low", "file", "shared", "across", "anonymous-code", "edge", "vdso"}) {
    if (!actor.Has(name)) continue;
    const auto& mapping = actor.Get(name);
    const Finished run({"memory", std::to_string(actor.Pid()), "--read", Hex(mapping.address),
                        std::to_string(mapping.length), "--raw"});
    EXPECT_EQ(run.status, 0) << name;
    EXPECT_EQ(run.errors, "") << name;
    EXPECT_TRUE(run.output == Text(*mapping.bytes)) << name;
  }
}

// What the kernel doesn't give is told by the address at which it ends, behind the bytes before that.
TEST(PmhostMemory, WhatCannotBeReadIsTold) {
  const MemoryActor actor;
  const std::string pid = std::to_string(actor.Pid());
  for (const char* name : {"guarded", "write-execute", "vvar", "unmapped"}) {
    if (!actor.Has(name)) continue;
    const auto& mapping = actor.Get(name);
    const auto plain = test_support::ReadMemFile(actor.Pid(), mapping.address, mapping.length);
    const Finished run(
        {"memory", pid, "--read", Hex(mapping.address), std::to_string(mapping.length), "--raw"});
    const bool whole = plain.size() == mapping.length;
    EXPECT_EQ(run.status, whole ? 0 : 1) << name;
    EXPECT_TRUE(run.output == Text(plain)) << name;
    EXPECT_EQ(run.errors, whole ? ""
                                : "pmhost: cannot read process " + pid + " at " + Hex(mapping.address) +
                                      ": nothing that can be read is there; pmhost memory " + pid +
                                      " lists what is mapped\n")
        << name;
  }
}

TEST(PmhostMemory, AReadAcrossTheEdgeOfAMappingGivesWhatIsBeforeIt) {
  const MemoryActor actor;
  const auto& edge = actor.Get("edge");
  const Finished run(
      {"memory", std::to_string(actor.Pid()), "--read", Hex(edge.address + 1), "8192", "--raw"});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(run.output == Text(*edge.bytes).substr(1));
  EXPECT_NE(run.errors.find("at " + Hex(edge.address + edge.length) + ": nothing that can be read is there"),
            std::string::npos)
      << run.errors;
}

TEST(PmhostMemory, AHexDumpHasSixteenBytesALine) {
  const MemoryActor actor;
  const auto& file = actor.Get("file");
  const Finished run({"memory", std::to_string(actor.Pid()), "--read", std::to_string(file.address), "20"});
  EXPECT_EQ(run.status, 0);
  char first[32];
  std::snprintf(first, sizeof(first), "%016lx", file.address);
  char second[32];
  std::snprintf(second, sizeof(second), "%016lx", file.address + 16);
  EXPECT_EQ(run.output, std::string(first) +
                            "  6c 69 6e 65 20 30 20 6f  66 20 61 20 6d 61 70 70  |line 0 of a mapp|\n" +
                            second + "  65 64 20 66                                       |ed f|\n");
}

TEST(PmhostMemory, JsonBytesAreHexadecimalDigitsUnderTheirAddress) {
  const MemoryActor actor;
  const auto& anonymous = actor.Get("anonymous");
  Pmhost pmhost(
      {"memory", std::to_string(actor.Pid()), "--read", Hex(anonymous.address + 1), "8191", "--json"});
  std::uint64_t address = anonymous.address + 1;
  std::string digits;
  pmhost.ReadUntil([&](const Document& piece) {
    EXPECT_EQ(piece["address"].GetString(), std::to_string(address));
    address += piece["bytes"].GetStringLength() / 2;
    digits += piece["bytes"].GetString();
    return false;
  });
  std::string expected;
  for (std::size_t i = 1; i < anonymous.bytes->size(); ++i) {
    char byte[4];
    std::snprintf(byte, sizeof(byte), "%02x", (*anonymous.bytes)[i]);
    expected += byte;
  }
  EXPECT_EQ(digits, expected);
  EXPECT_EQ(pmhost.Wait(), 0);
}

TEST(PmhostMemory, ReadsOneGiB) {
  constexpr std::uint64_t kSize = 1ULL << 30;
  const MemoryActor actor(kSize);
  // Into memory: what is measured is nothing, what is compared is everything that was written.
  const qor::UniqueFd output(::memfd_create("bytes", MFD_CLOEXEC));
  const Finished run({"memory", std::to_string(actor.Pid()), "--read", Hex(actor.Get("large").address),
                      std::to_string(kSize), "--raw"},
                     [&] { ::dup2(output.Get(), STDOUT_FILENO); });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.errors, "") << "no progress where nobody watches";
  ASSERT_EQ(::lseek(output.Get(), 0, SEEK_END), static_cast<off_t>(kSize));
  for (std::uint64_t offset = 0; offset < kSize; offset += 1 << 20) {
    std::uint64_t stamp = 0;
    ASSERT_EQ(::pread(output.Get(), &stamp, sizeof(stamp), static_cast<off_t>(offset)), 8);
    ASSERT_EQ(stamp, offset);
  }
}

TEST(PmhostMemory, ProgressGoesToATerminalOnStandardErrorOnly) {
  const MemoryActor actor(1ULL << 26);
  const qor::UniqueFd terminal(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_TRUE(terminal && ::grantpt(terminal.Get()) == 0 && ::unlockpt(terminal.Get()) == 0);
  const qor::UniqueFd other(::open(::ptsname(terminal.Get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
  const qor::UniqueFd output(::memfd_create("bytes", MFD_CLOEXEC));
  const Finished run({"memory", std::to_string(actor.Pid()), "--read", Hex(actor.Get("large").address),
                      std::to_string(1ULL << 26), "--raw"},
                     [&] {
                       ::dup2(other.Get(), STDERR_FILENO);
                       ::dup2(output.Get(), STDOUT_FILENO);
                     });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(::lseek(output.Get(), 0, SEEK_END), off_t{1} << 26) << "nothing but the bytes";
  char shown[4096] = {};
  ASSERT_GT(::read(terminal.Get(), shown, sizeof(shown) - 1), 0);
  EXPECT_TRUE(std::string(shown).starts_with("\rpmhost: 1 of 64 MiB\r")) << shown;
  EXPECT_NE(std::string(shown).find("\rpmhost: 64 of 64 MiB\r\n"), std::string::npos) << shown;
}

TEST(PmhostMemory, ReadsOfNothingAndAtAddressZero) {
  const MemoryActor actor;
  const std::string pid = std::to_string(actor.Pid());
  const Finished nothing({"memory", pid, "--read", Hex(actor.Get("low").address), "0"});
  EXPECT_EQ(nothing.status, 0);
  EXPECT_EQ(nothing.output, "");
  const Finished atZero({"memory", pid, "--read", "0", "16"});
  EXPECT_EQ(atZero.status, 1);
  EXPECT_NE(atZero.errors.find("at 0x0: nothing that can be read is there"), std::string::npos);
}

TEST(PmhostMemory, APathThatIsNoTextIsEscapedAndNotDropped) {
  const std::filesystem::path path = std::filesystem::path(testing::TempDir()) / "no text \xff";
  std::ofstream(path) << "content";
  const qor::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  void* const mapped = ::mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, file.Get(), 0);
  ASSERT_NE(mapped, MAP_FAILED);
  for (const char* command : {"memory", "modules"}) {
    Pmhost pmhost({command, std::to_string(::getpid()), "--json"});
    bool seen = false;
    for (std::string line = pmhost.ReadLine(); !line.empty(); line = pmhost.ReadLine())
      seen |= line.find("no text \\udcff") != std::string::npos;
    EXPECT_TRUE(seen) << command;
    EXPECT_EQ(pmhost.Wait(), 0);
  }
  ::munmap(mapped, 4096);
  std::filesystem::remove(path);
}

TEST(PmhostMemory, AProcessThatIsNotThereIsNamed) {
  MemoryActor actor;
  const std::string pid = std::to_string(actor.Pid());
  actor.End();
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"memory", pid}, {"memory", pid, "--read", "4096", "16"}}) {
    const Finished run(arguments);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output.find("0x"), std::string::npos);
    EXPECT_EQ(run.errors,
              "pmhost: cannot open the memory of process " + pid + ": there is no such process\n");
  }
  const Finished modules({"modules", pid});
  EXPECT_EQ(modules.status, 1);
  EXPECT_EQ(modules.errors,
            "pmhost: cannot list the modules of process " + pid + ": there is no such process\n");
}

TEST(PmhostMemory, AMissingRightIsNamed) {
  SKIP_IF(test_support::MissingRight(CAP_SETUID, "for a process of another user"));
  const MemoryActor actor;
  const std::string pid = std::to_string(actor.Pid());
  for (const char* command : {"memory", "modules"}) {
    const Finished run({command, pid}, BecomeNobody);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.errors.find("needs CAP_SYS_PTRACE"), std::string::npos) << run.errors;
    EXPECT_NE(run.errors.find("run as root"), std::string::npos) << run.errors;
  }
}

TEST(PmhostMemory, NumbersAreDecimalOrHexadecimalBehindAPrefix) {
  EXPECT_EQ(pmhost::ParseMemoryNumber("010"), 10U) << "never octal";
  EXPECT_EQ(pmhost::ParseMemoryNumber("0x7F00"), 0x7f00U);
  EXPECT_EQ(pmhost::ParseMemoryNumber("18446744073709551615"), 0xffffffffffffffffU);
  for (const char* text : {"", "0x", "12 ", " 12", "1k", "0x-1", "-0", "18446744073709551616"})
    EXPECT_EQ(pmhost::ParseMemoryNumber(text), std::nullopt) << text;
}

TEST(PmhostMemory, AnInterruptEndsALongReadWithAFailure) {
  const MemoryActor actor(1ULL << 30);
  Pmhost pmhost(
      {"memory", std::to_string(actor.Pid()), "--read", Hex(actor.Get("large").address), "0x40000000"});
  EXPECT_NE(pmhost.ReadLine(), "") << "it has begun, and the pipe can't hold what comes";
  pmhost.Kill(SIGINT);
  while (!pmhost.ReadLine().empty()) {
  }
  EXPECT_EQ(pmhost.Wait(), 1);
  EXPECT_NE(pmhost.Errors().find("interrupted after "), std::string::npos);
}

TEST(PmhostMemory, AReaderThatGoesAwayEndsItAndAFullDiskIsAFailure) {
  const MemoryActor actor(1ULL << 30);
  const std::vector<std::string> arguments = {"memory", std::to_string(actor.Pid()), "--read",
                                              Hex(actor.Get("large").address), "0x40000000"};
  for (const bool raw : {false, true}) {
    std::vector<std::string> all = arguments;
    if (raw) all.emplace_back("--raw");
    Pmhost pmhost(all);
    pmhost.CloseOutput();
    EXPECT_EQ(pmhost.Wait(), 0);
    const Finished full(all, [] { ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO); });
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.errors, "pmhost: cannot write the output: No space left on device\n");
  }
}

// --- modules -----------------------------------------------------------------------------------------------

TEST(PmhostModules, TellsTheExecutableEntriesOfTheMapsFile) {
  const MemoryActor actor;
  std::vector<std::string> expected;
  for (const MapsLine& line : test_support::ReadMaps(actor.Pid()))
    if (line.permissions[2] == 'x' && line.permissions.substr(0, 3) != "-wx")
      expected.push_back(line.path + " " + std::to_string(line.begin) + " " +
                         std::to_string(line.end - line.begin));
  std::vector<std::string> told;
  Pmhost pmhost({"modules", std::to_string(actor.Pid()), "--json"});
  pmhost.ReadUntil([&](const Document& module) {
    EXPECT_EQ(module.MemberCount(), 3U);
    told.push_back(std::string(module["path"].IsNull() ? "" : module["path"].GetString()) + " " +
                   module["base"].GetString() + " " + module["size"].GetString());
    return false;
  });
  EXPECT_EQ(told, expected);
  EXPECT_EQ(pmhost.Wait(), 0);
  EXPECT_EQ(pmhost.Errors(), "");
}

TEST(PmhostModules, TellsALibraryThatIsMappedExecutableTwiceTwiceAndNoMappingWithWriteAndExecuteOnly) {
  const MemoryActor actor;
  const Finished run({"modules", std::to_string(actor.Pid())});
  EXPECT_EQ(run.status, 0);
  char base[32];
  for (const auto& library : actor.All("library")) {
    std::snprintf(base, sizeof(base), "0x%016lx", library.address);
    const std::size_t row = run.output.find(base);
    ASSERT_NE(row, std::string::npos);
    EXPECT_EQ(run.output.substr(row, run.output.find('\n', row) - row),
              std::string(base) + "        4096  " + actor.File());
  }
  std::snprintf(base, sizeof(base), "0x%016lx", actor.Get("write-execute").address);
  EXPECT_EQ(run.output.find(base), std::string::npos);
}

}  // namespace
