#include "host_kit/procfs_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "host_kit/bootstrap.h"
#include "host_kit/loaded_module.h"
#include "support/actor.h"
#include "support/temp_directory.h"
#include "zym/utf.h"

namespace {

using host_kit::Bootstrap;
using host_kit::ProcfsReader;
using qor::PidType;
using test_support::Actor;

// Actors that have come to their step "wait", read with and without the reader in front.
class ProcfsReaderTest : public testing::Test {
 protected:
  zym::intrusive_ptr<ProcfsReader> ReaderWith(const host_kit::ReadLimits& limits) {
    return zym::CreateObject<ProcfsReader>(m_plain.GetParser(), limits);
  }
  static PidType Ready(Actor& actor) { return static_cast<PidType>(actor.HearPid()); }
  static std::string Utf8(const zym::types::string16_t& text) { return zym::Utf16ToUtf8Lossy(text); }

  host_kit::LoadedModule m_module{PROCESS_MANAGER_MODULE};
  const Bootstrap m_plain{m_module, host_kit::MakeDefaultServices(), {.enumerate = false, .reader = {}}};
  const zym::intrusive_ptr<ProcfsReader> m_reader = ReaderWith({});
};

TEST_F(ProcfsReaderTest, ANameWithALineEndHidesNothing) {
  Actor actor({"name", "a) R 1 2 3 4 5\n", "say", "wait"});
  const PidType pid = Ready(actor);
  qor::procfs::Stat stat;
  ASSERT_FALSE(ZYM_SUCCEEDED(m_plain.GetParser()->GetStat(pid, stat))) << "what the reader is for";
  ASSERT_EQ(m_reader->GetStat(pid, stat), zym::ZYM_OK);
  EXPECT_EQ(stat.comm, "a) R 1 2 3 4 5\n");
  EXPECT_EQ(stat.ppid, static_cast<PidType>(::getpid()));
  EXPECT_EQ(stat.session, static_cast<PidType>(::getsid(0)));
  EXPECT_EQ(stat.uid, ::geteuid());
  EXPECT_NE(stat.directoryChangeTime, 0);
}

TEST_F(ProcfsReaderTest, AnOrdinaryProcessIsReadAsWithoutIt) {
  Actor actor({"say", "wait"});
  const PidType pid = Ready(actor);
  qor::procfs::Stat plainStat;
  qor::procfs::Stat stat;
  ASSERT_EQ(m_plain.GetParser()->GetStat(pid, plainStat), zym::ZYM_OK);
  ASSERT_EQ(m_reader->GetStat(pid, stat), zym::ZYM_OK);
  EXPECT_EQ(stat.starttime, plainStat.starttime);
  EXPECT_EQ(stat.comm, plainStat.comm);
  zym::types::string16_t plainText;
  zym::types::string16_t text;
  ASSERT_EQ(m_plain.GetParser()->GetCmdline(pid, plainText), zym::ZYM_OK);
  ASSERT_EQ(m_reader->GetCmdline(pid, text), zym::ZYM_OK);
  EXPECT_EQ(text, plainText);
  zym::types::vector_t<zym::types::string_t> plainVariables;
  zym::types::vector_t<zym::types::string_t> variables;
  ASSERT_EQ(m_plain.GetParser()->GetEnvironmentVariables(pid, plainVariables), zym::ZYM_OK);
  ASSERT_EQ(m_reader->GetEnvironmentVariables(pid, variables), zym::ZYM_OK);
  EXPECT_EQ(variables, plainVariables);
  qor::NativePath path;
  ASSERT_EQ(m_reader->GetImagePath(pid, path), zym::ZYM_OK);
  EXPECT_EQ(path, Actor::Path());
}

TEST_F(ProcfsReaderTest, EachBadByteOfACommandLineIsAReplacementCharacter) {
  Actor actor({"exec", Actor::Path(), "\xff\xfe", "say", "wait"});
  const PidType pid = Ready(actor);
  zym::types::string16_t text;
  ASSERT_FALSE(ZYM_SUCCEEDED(m_plain.GetParser()->GetCmdline(pid, text))) << "what the reader is for";
  ASSERT_EQ(m_reader->GetCmdline(pid, text), zym::ZYM_OK);
  EXPECT_EQ(text, u"\uFFFD\uFFFD say wait");
}

TEST_F(ProcfsReaderTest, ALongCommandLineIsCutAndMarked) {
  Actor actor({"exec", Actor::Path(), std::string(100'000, 'x'), "say", "wait"});
  const PidType pid = Ready(actor);
  zym::types::string16_t text;
  ASSERT_EQ(m_reader->GetCmdline(pid, text), zym::ZYM_OK);
  EXPECT_EQ(Utf8(text), std::string(64 * 1024, 'x') + ProcfsReader::kCut);
}

TEST_F(ProcfsReaderTest, ACommandLineIsCutBetweenCharacters) {
  Actor actor({"exec", Actor::Path(), "aé€😀", "say", "wait"});  // of 1, 2, 3 and 4 bytes
  const PidType pid = Ready(actor);
  const std::pair<std::size_t, const char*> cases[] = {{1, "a"},   {2, "a"},     {3, "aé"},
                                                       {4, "aé"},  {5, "aé"},    {6, "aé€"},
                                                       {9, "aé€"}, {10, "aé€😀"}, {11, "aé€😀 "}};
  for (const auto& [limit, beginning] : cases) {
    zym::types::string16_t text;
    ASSERT_EQ(ReaderWith({.commandLine = limit})->GetCmdline(pid, text), zym::ZYM_OK);
    EXPECT_EQ(Utf8(text), std::string(beginning) + ProcfsReader::kCut) << limit;
  }
}

TEST_F(ProcfsReaderTest, ALimitThatIsReachedAndNotPassedCutsNothing) {
  Actor actor({"exec", Actor::Path(), "actor", "say", "wait"});
  const PidType pid = Ready(actor);
  const std::string whole = "actor say wait";
  zym::types::string16_t text;
  ASSERT_EQ(ReaderWith({.commandLine = whole.size() + 1})->GetCmdline(pid, text), zym::ZYM_OK);
  EXPECT_EQ(Utf8(text), whole);
}

TEST_F(ProcfsReaderTest, OfALongEnvironmentTheFirstWholeVariablesAreKept) {
  Actor actor({"say", "wait"});
  const PidType pid = Ready(actor);
  zym::types::vector_t<zym::types::string_t> all;
  ASSERT_EQ(m_reader->GetEnvironmentVariables(pid, all), zym::ZYM_OK);
  ASSERT_GE(all.size(), 3U) << "the tests run without an environment";
  const std::size_t two = all[0].size() + 1 + all[1].size() + 1;
  zym::types::vector_t<zym::types::string_t> some;
  ASSERT_EQ(ReaderWith({.environment = two + 1})->GetEnvironmentVariables(pid, some), zym::ZYM_OK);
  EXPECT_EQ(some, (zym::types::vector_t<zym::types::string_t>{all[0], all[1], ProcfsReader::kCut}));
}

TEST_F(ProcfsReaderTest, AWorkingDirectoryThatIsTooDeepIsSaidToBe) {
  const test_support::TempDirectory directory;
  Actor actor({"enter", directory.Path(), "descend", std::string(200, 'd'), "25", "say", "wait"});
  const PidType pid = Ready(actor);
  qor::NativePath path;
  ASSERT_FALSE(ZYM_SUCCEEDED(m_plain.GetParser()->GetWorkingDir(pid, path))) << "what the reader is for";
  ASSERT_EQ(m_reader->GetWorkingDir(pid, path), zym::ZYM_OK);
  EXPECT_EQ(path, ProcfsReader::kTooDeep);
}

TEST_F(ProcfsReaderTest, WhoIsGoneIsNotFound) {
  const auto gone = static_cast<PidType>(test_support::RunTrue());
  qor::procfs::Stat stat;
  zym::types::string16_t text;
  zym::types::vector_t<zym::types::string_t> variables;
  EXPECT_EQ(m_reader->GetStat(gone, stat), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_reader->GetCmdline(gone, text), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_reader->GetEnvironmentVariables(gone, variables), zym::ZYM_E_UNSPECIFIED);
}

TEST_F(ProcfsReaderTest, AKernelThreadHasNoCommandLineAndNoEnvironment) {
  constexpr PidType kThreadd = 2;
  qor::procfs::Stat stat;
  if (m_reader->GetStat(kThreadd, stat) != zym::ZYM_OK || !stat.IsKernelThread())
    GTEST_SKIP() << "no kernel thread has pid 2 here: run in the first PID namespace";
  zym::types::string16_t text;
  EXPECT_EQ(m_reader->GetCmdline(kThreadd, text), zym::ZYM_FALSE);
  zym::types::vector_t<zym::types::string_t> variables{"before"};
  EXPECT_EQ(m_reader->GetEnvironmentVariables(kThreadd, variables), zym::ZYM_OK);
  EXPECT_TRUE(variables.empty());
}

TEST_F(ProcfsReaderTest, BootstrapPutsItInFrontAndTheModuleReadsThroughIt) {
  Actor actor({"name", "a\nb", "exec", Actor::Path(), "\xff", "name", "a\nb", "say", "wait"});
  const PidType pid = Ready(actor);
  const Bootstrap host(m_module);
  qor::process_manager::process_cache::ProcessInformation info;
  ASSERT_TRUE(host.GetCache()->Get(static_cast<pid_t>(pid), info));
  ASSERT_TRUE(info.commandLine);
  EXPECT_TRUE(info.commandLine->starts_with(u"\uFFFD name")) << Utf8(*info.commandLine);
  EXPECT_EQ(info.parentPid, static_cast<PidType>(::getpid()));
}

}  // namespace
