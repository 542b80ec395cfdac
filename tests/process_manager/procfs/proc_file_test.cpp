// Files read whole, by a line, or in one piece.
#include "process_manager/procfs/proc_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "process_manager/procfs/proc_path.h"
#include "support/fresh_process.h"
#include "support/temp_directory.h"

namespace qor::procfs {
namespace {

std::string Text(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 23);
  return text;
}

TEST(ProcFile, ReadsFilesOfEverySizeWhole) {
  const test_support::TempDirectory directory;
  ProcFile file;
  for (const std::size_t size :
       {0UL, 1UL, 4095UL, 4096UL, 4097UL, 8192UL, 65535UL, 65536UL, 65537UL, 131072UL, 1000001UL})
    for (const ReadUntil until : {ReadUntil::kEnd, ReadUntil::kShortRead, ReadUntil::kNewline}) {
      const std::string path = directory.Write("file", Text(size));
      ASSERT_EQ(file.Read(path.c_str(), until), ReadResult::kDone) << size;
      ASSERT_TRUE(file.Text() == Text(size)) << size;
    }
}

TEST(ProcFile, CanBeUsedAgainForASmallerFile) {
  const test_support::TempDirectory directory;
  ProcFile file;
  file.Read(directory.Write("large", Text(100'000)).c_str());
  file.Read(directory.Write("small", "x").c_str());
  EXPECT_EQ(file.Text(), "x");
}

TEST(ProcFile, TellsAFileThatCannotBeOpenedFromOneThatCannotBeRead) {
  const test_support::TempDirectory directory;
  ProcFile file;
  errno = 0;
  EXPECT_EQ(file.Read(directory.Place("missing").c_str()), ReadResult::kCannotOpen);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(file.Read(directory.Path().c_str()), ReadResult::kCannotRead);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(file.Text(), "");
}

// A pipe gives what was written, piece by piece.
TEST(ProcFile, AWholeLineIsEnoughWhereALineIsWanted) {
  const test_support::TempDirectory directory;
  const std::string path = directory.Place("pipe");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const int pipe = ::open(path.c_str(), O_RDWR | O_CLOEXEC);  // stays open: the end never comes
  ASSERT_GE(pipe, 0);
  ASSERT_EQ(::write(pipe, "one\ntwo", 7), 7);
  ProcFile file;
  EXPECT_EQ(file.Read(path.c_str(), ReadUntil::kNewline), ReadResult::kDone);
  EXPECT_EQ(file.Text(), "one\ntwo");
  EXPECT_EQ(FirstLine(file.Text()), "one");
  ::close(pipe);
}

TEST(ProcFile, AShortReadIsTheEndWhereThatIsTold) {
  const test_support::TempDirectory directory;
  const std::string path = directory.Place("pipe");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const int pipe = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(pipe, 0);
  ASSERT_EQ(::write(pipe, "piece", 5), 5);
  ProcFile file;
  EXPECT_EQ(file.Read(path.c_str(), ReadUntil::kShortRead), ReadResult::kDone);
  EXPECT_EQ(file.Text(), "piece");
  ::close(pipe);
}

TEST(ProcFile, ShortReadsAreNotTheEndOfAWholeFile) {
  const test_support::TempDirectory directory;
  const std::string path = directory.Place("pipe");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const std::string text = Text(300'000);  // more than a pipe holds
  std::thread writer([&] {
    const int pipe = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    for (std::size_t at = 0; at < text.size(); at += 1000)
      EXPECT_EQ(::write(pipe, text.data() + at, 1000), 1000);
    ::close(pipe);
  });
  ProcFile file;
  EXPECT_EQ(file.Read(path.c_str()), ReadResult::kDone);
  EXPECT_TRUE(file.Text() == text);
  writer.join();
}

TEST(ProcPath, JoinsWithOneSlash) {
  EXPECT_EQ(JoinPath("/proc/", "modules"), "/proc/modules");
  EXPECT_EQ(JoinPath("/proc", "modules"), "/proc/modules");
  EXPECT_EQ(JoinPath("/proc/", ""), "/proc/");
}

TEST(ProcPath, IsTheRootThePidAndTheName) {
  test_support::InFreshProcess([] {
    ::unsetenv("VORN_HOST_PROCFS");
    EXPECT_STREQ(ProcPath(4294967295).c_str(), "/proc/4294967295");
    EXPECT_STREQ(ProcPath(1, "ns/mnt").c_str(), "/proc/1/ns/mnt");
    EXPECT_STREQ(ProcPath(1, "").c_str(), "/proc/1");
    EXPECT_STREQ(ProcPath(1, "task/").c_str(), "/proc/1/task/");
    ProcPath path(1, "task/");
    path.Append("2");
    EXPECT_STREQ(path.c_str(), "/proc/1/task/2");
  });
}

TEST(ProcPath, WhatDoesNotFitNamesNoFile) {
  test_support::InFreshProcess([] {
    ::unsetenv("VORN_HOST_PROCFS");
    const std::size_t room = 2048 - sizeof("/proc/1/");
    EXPECT_EQ(std::string(ProcPath(1, std::string(room, 'x')).c_str()).size(), 2047U);
    EXPECT_STREQ(ProcPath(1, std::string(room + 1, 'x')).c_str(), "");
    ProcPath path(1, std::string(room + 1, 'x'));
    path.Append("stat");
    EXPECT_STREQ(path.c_str(), "");
  });
}

TEST(ProcPath, ARootThatLeavesNoRoomNamesNoFile) {
  test_support::InFreshProcess([] {
    const test_support::TempDirectory directory;
    std::string root = directory.Path();
    while (root.size() < 2047) root += "/.";
    ::setenv("VORN_HOST_PROCFS", root.c_str(), 1);
    EXPECT_STREQ(ProcPath(12).c_str(), "");
    EXPECT_STREQ(ProcPath(12, "stat").c_str(), "");
  });
}

}  // namespace
}  // namespace qor::procfs
