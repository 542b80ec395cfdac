// The list of all processes.
#include "process_manager/process/process_snapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "tests/process_manager/process/process_objects_fixture.h"
#include "zym/exception.h"

namespace qor::process_manager {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class ProcessSnapshotTest : public ProcessObjectsTest {
 protected:
  void SetUp() override {
    ProcessObjectsTest::SetUp();
    m_parser->listed = {80, kPid, 79};
    m_parser->processes[79] = m_parser->processes[kPid];
    m_parser->processes[80] = m_parser->processes[kPid];
  }

  zym::intrusive_ptr<ProcessSnapshot> Make() { return zym::CreateObject<ProcessSnapshot>(Locator()); }

  static std::vector<PidType> Walk(IProcessInformationEnumerator& snapshot) {
    std::vector<PidType> pids;
    zym::intrusive_ptr<IProcessInformation> information;
    while (snapshot.Next(information.Ref()) == zym::ZYM_OK) pids.push_back(RecordOf(*information).pid);
    return pids;
  }
};

TEST_F(ProcessSnapshotTest, HoldsOneObjectMoreThanThereAreDirectoriesForTheKernelWhichIsLast) {
  EXPECT_THAT(Walk(*Make()), ElementsAre(80, kPid, 79, 0));
}

TEST_F(ProcessSnapshotTest, AProcessThatEndsDuringTheWalkIsNotInIt) {
  m_parser->processes.erase(kPid);
  EXPECT_THAT(Walk(*Make()), ElementsAre(80, 79, 0));
  EXPECT_THAT(m_host->tracer->Find("ProcessSnapshot: Failed to read info for task 77, error: "),
              HasSubstr("zym.result=0x8000004c"));
  EXPECT_TRUE(Traced(500, "ProcessSnapshot: Failed to read info for task 77, error: "));
}

TEST_F(ProcessSnapshotTest, AProcessWhoseEnvironmentCannotBeReadIsNotInIt) {
  m_parser->processes[80].environmentIsHidden = true;
  EXPECT_THAT(Walk(*Make()), ElementsAre(kPid, 79, 0));
}

TEST_F(ProcessSnapshotTest, WithoutTheKernelsCommandLineTheKernelIsLeftOut) {
  m_parser->processes.erase(0);
  EXPECT_THAT(Walk(*Make()), ElementsAre(80, kPid, 79));
}

TEST_F(ProcessSnapshotTest, AMachineThatListsNothingHasTheKernel) {
  m_parser->listed.clear();
  EXPECT_THAT(Walk(*Make()), ElementsAre(0));
}

TEST_F(ProcessSnapshotTest, NextAfterTheLastYieldsOneEachTimeAndLeavesTheOutParameterAlone) {
  const auto snapshot = Make();
  Walk(*snapshot);
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IProcessInformation*>(&sentinel);
  for (int i = 0; i < 3; ++i) {
    IProcessInformation* information = untouched;
    EXPECT_EQ(snapshot->Next(&information), 1);
    EXPECT_EQ(information, untouched);
  }
}

TEST_F(ProcessSnapshotTest, AfterResetItStartsOverWithTheSameObjects) {
  const auto snapshot = Make();
  std::vector<zym::intrusive_ptr<IProcessInformation>> first;
  zym::intrusive_ptr<IProcessInformation> information;
  while (snapshot->Next(information.Ref()) == zym::ZYM_OK) first.push_back(information);
  ASSERT_EQ(first.size(), 4U);
  m_parser->processes.clear();
  EXPECT_EQ(snapshot->Reset(), zym::ZYM_OK);
  for (const auto& expected : first) {
    ASSERT_EQ(snapshot->Next(information.Ref()), zym::ZYM_OK);
    EXPECT_EQ(information, expected);
  }
  EXPECT_EQ(snapshot->Next(information.Ref()), zym::ZYM_FALSE);
}

TEST_F(ProcessSnapshotTest, GivesEachObjectWithAReference) {
  auto snapshot = Make();
  zym::intrusive_ptr<IProcessInformation> information;
  ASSERT_EQ(snapshot->Next(information.Ref()), zym::ZYM_OK);
  EXPECT_EQ(information->AddRef(), 3U);
  information->Release();
  snapshot.Reset();
  EXPECT_EQ(information->AddRef(), 2U);
  information->Release();
  EXPECT_EQ(RecordOf(*information).pid, 80U) << "an object outlives its snapshot";
}

TEST_F(ProcessSnapshotTest, FillsTheCacheWithCredentialsAndEnvironments) {
  const auto snapshot = Make();
  const std::uint64_t reads = m_parser->reads;
  zym::intrusive_ptr<IProcessInformation> information;
  while (snapshot->Next(information.Ref()) == zym::ZYM_OK) {
    const PublicRecord record = RecordOf(*information);
    Info known;
    EXPECT_TRUE(m_cache->GetByUniquePid(record.uniquePid, known)) << record.pid;
    EXPECT_EQ(known.pid, record.pid);
    if (record.pid == 0) continue;
    EXPECT_EQ(known.effectiveUserId, 12U);
    EXPECT_EQ(known.effectiveGroupId, 22U);
    EXPECT_EQ(known.environment.size(), 2U);
  }
  EXPECT_EQ(m_parser->reads, reads);
}

TEST_F(ProcessSnapshotTest, ASecondOneReadsNothingThatTheCacheHasInFull) {
  const auto first = Make();
  const std::uint64_t reads = m_parser->reads;
  EXPECT_THAT(Walk(*Make()), ElementsAre(80, kPid, 79, 0));
  EXPECT_EQ(m_parser->reads, reads);
}

TEST_F(ProcessSnapshotTest, AProcessThatHasJustEndedAnswersForASecondAndThenNoMore) {
  m_parser->listed = {kPid};
  const auto before = Make();
  Finish(kPid);
  m_parser->processes.erase(kPid);
  m_now += kRetention;
  EXPECT_EQ(Ask(kPid).state, static_cast<std::uint32_t>(kTerminated));
  EXPECT_THAT(Walk(*Make()), ElementsAre(kPid, 0)) << "its directory is still listed, and it is known";
  m_now += 1;
  EXPECT_FALSE(Knows(kPid));
  EXPECT_THAT(Walk(*Make()), ElementsAre(0));
}

TEST_F(ProcessSnapshotTest, WithoutAReaderOfProcThereIsNone) {
  m_host->locator->FailWith(procfs::IParser::kIid, zym::ZYM_E_LOCKED);
  try {
    static_cast<void>(Make());
    ADD_FAILURE() << "nothing was thrown";
  } catch (const zym::CheckResultFailedException& e) {
    EXPECT_EQ(e.Result(), zym::ZYM_E_LOCKED);
    EXPECT_THAT(e.what(), HasSubstr("Failed to load procfs::IParser"));
  }
}

TEST_F(ProcessSnapshotTest, WithoutAListOfProcessesThereIsNone) {
  m_parser->listResult = zym::ZYM_E_UNSPECIFIED;
  try {
    static_cast<void>(Make());
    ADD_FAILURE() << "nothing was thrown";
  } catch (const zym::CheckResultFailedException& e) {
    EXPECT_EQ(e.Result(), zym::ZYM_E_UNSPECIFIED);
    EXPECT_THAT(e.what(), HasSubstr("Failed to iterate /proc folder"));
  }
}

TEST_F(ProcessSnapshotTest, TracesItsLifeAndItsOperations) {
  auto snapshot = Make();
  EXPECT_TRUE(Traced(800, "ProcessSnapshot() "));
  EXPECT_TRUE(Traced(800, "ProcessSnapshot() <- "));
  m_host->tracer->Clear();
  zym::intrusive_ptr<IProcessInformation> information;
  EXPECT_EQ(snapshot->Next(information.Ref()), zym::ZYM_OK);
  snapshot->Reset();
  snapshot.Reset();
  std::vector<std::string> texts;
  for (const test_support::TraceRecord& record : m_host->tracer->Records()) {
    EXPECT_EQ(record.level, 800U);
    texts.push_back(record.text);
  }
  EXPECT_THAT(texts, ElementsAre("Next() ", "Reset() ", "~ProcessSnapshot() "));
}

}  // namespace
}  // namespace qor::process_manager
