// How a process is described, by readers that answer as a test says and fail at each step.
#include "process_manager/process/tools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <string>

#include "process_manager/process_manager.h"
#include "process_manager/procfs/proc_parser.h"
#include "support/child.h"
#include "support/fake_services.h"
#include "support/forwarding_parser.h"
#include "support/process_records.h"
#include "support/temp_directory.h"
#include "zym/module_counter.h"

namespace qor::process_manager {
namespace {

using process_cache::ProcessInformation;
using test_support::IsRecord;
using ::testing::_;
using ::testing::DoAll;
using ::testing::HasSubstr;
using ::testing::InSequence;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::SetArgReferee;
using ::testing::StrictMock;

constexpr zym::result_t kFailure = zym::ZYM_E_INVALID_STATE;
constexpr zym::datetime_t kStart = 1'700'000'000LL * 10'000'000 + 116'444'736'000'000'000;

class MockParser : public zym::object::Ifaces<procfs::IParser> {
 public:
#define MOCK(Name, parameters, arguments) MOCK_METHOD(zym::result_t, Name, parameters, (override));
  PARSER_OPERATIONS(MOCK)
#undef MOCK
};

// A record in which every field that a read may set has a value that no read gives.
ProcessInformation OldRecord() {
  ProcessInformation info;
  info.pid = 91;
  info.creatorPid = 92;
  info.parentPid = 93;
  info.uniquePid = 94;
  info.creatorUniquePid = 95;
  info.parentUniquePid = 96;
  info.sessionId = 97;
  info.startTime = 98;
  info.exitTime = 99;
  info.imagePath = u"old image";
  info.workingDirectory = u"old directory";
  info.commandLine = std::make_shared<const zym::types::string16_t>(u"old command");
  info.flags = 101;
  info.state = 102;
  info.realUserId = 103;
  info.mountNamespaceId = 104;
  return info;
}

// --- with a reader that answers as the test says ---

class ToolsTest : public ::testing::Test {
 protected:
  ToolsTest() {
    m_stat.pid = 77;
    m_stat.ppid = 5;
    m_stat.session = 6;
    m_stat.directoryChangeTime = 1'700'000'000;
    m_stat.uid = 1001;
  }
  ~ToolsTest() override {
    m_parser.Reset();
    m_tracer.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects);
  }

  // Every read succeeds, until the test says otherwise.
  void ReadsSucceed() {
    ON_CALL(*m_parser, GetStat(77, _)).WillByDefault([this](PidType, procfs::Stat& stat) {
      stat = m_stat;
      return zym::ZYM_OK;
    });
    ON_CALL(*m_parser, GetWorkingDir(77, _))
        .WillByDefault(DoAll(SetArgReferee<1>("/home/\u00fcser"), Return(zym::ZYM_OK)));
    ON_CALL(*m_parser, GetMountNamespaceId(77, _))
        .WillByDefault(DoAll(SetArgReferee<1>(4026531841), Return(0)));
    ON_CALL(*m_parser, GetImagePath(77, _))
        .WillByDefault(DoAll(SetArgReferee<1>("/usr/bin/pr\u00f6gram"), Return(zym::ZYM_OK)));
    ON_CALL(*m_parser, GetCmdline(77, _))
        .WillByDefault(
            DoAll(SetArgReferee<1>(zym::types::string16_t(u"program --option")), Return(zym::ZYM_OK)));
    ON_CALL(*m_parser, GetComm(77, _))
        .WillByDefault(DoAll(SetArgReferee<1>("kworker/0:1"), Return(zym::ZYM_OK)));
    ON_CALL(*m_parser, GetCreds(77, _)).WillByDefault([](PidType, procfs::Creds& creds) {
      creds = {.uid = {11, 12, 13, 14}, .gid = {21, 22, 23, 24}, .groups = {31}};
      return zym::ZYM_OK;
    });
    ON_CALL(*m_parser, GetEnvironmentVariables(77, _))
        .WillByDefault([](PidType, zym::types::vector_t<zym::types::string_t>& variables) {
          variables = {"A=1", "B=2"};
          return zym::ZYM_OK;
        });
  }

  zym::result_t Get(PidType pid = 77) { return GetProcessInfo(m_tracer.get(), m_parser.get(), pid, m_info); }
  // Exactly this text behind the place of the check.
  void ExpectFailedCheck(const std::string& expression, const std::string& message) {
    const std::string text = m_tracer->Find("(" + expression + ")");
    EXPECT_THAT(text, ::testing::StartsWith("process_manager/process/tools.cpp:"));
    EXPECT_THAT(
        text, ::testing::EndsWith("(" + expression +
                                  "),(ZYM_SUCCEEDED(_result)) failed: result = 0x8000006a (Invalid state) " +
                                  message));
    EXPECT_TRUE(m_tracer->Has(300, text));
  }

  std::int32_t m_objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<test_support::RecordingTracer> m_tracer =
      zym::CreateObject<test_support::RecordingTracer>();
  zym::intrusive_ptr<NiceMock<MockParser>> m_parser = zym::CreateObject<NiceMock<MockParser>>();
  procfs::Stat m_stat;
  ProcessInformation m_info = OldRecord();
};

TEST_F(ToolsTest, AProcessGivesEveryFieldThatOneLookTells) {
  ReadsSucceed();
  ASSERT_EQ(Get(), zym::ZYM_OK);
  ProcessInformation expected = OldRecord();  // the creator and the unique pids are left to the cache
  expected.pid = 77;
  expected.parentPid = 5;
  expected.sessionId = 6;
  expected.startTime = kStart;
  expected.exitTime = 0;
  expected.state = kCreated;
  expected.workingDirectory = u"/home/\u00fcser";
  expected.imagePath = u"/usr/bin/pr\u00f6gram";
  expected.commandLine = std::make_shared<const zym::types::string16_t>(u"program --option");
  expected.flags = 0;
  expected.realUserId = 1001;
  expected.mountNamespaceId = 4026531841;
  EXPECT_THAT(m_info, IsRecord(expected));
  EXPECT_TRUE(m_tracer->Has(800, "procfs->GetImagePath: /usr/bin/pr\u00f6gram"));
  EXPECT_TRUE(m_tracer->Has(800, "(may be modified) imagePath: /usr/bin/pr\u00f6gram"));
}

TEST_F(ToolsTest, TheCommandLineIsANewStringAtEachRead) {
  ReadsSucceed();
  const auto old = m_info.commandLine;
  ASSERT_EQ(Get(), zym::ZYM_OK);
  EXPECT_EQ(*old, u"old command");
  const auto first = m_info.commandLine;
  ASSERT_EQ(Get(), zym::ZYM_OK);
  EXPECT_NE(m_info.commandLine, first);
}

TEST_F(ToolsTest, WorksWithoutATracer) {
  ReadsSucceed();
  EXPECT_EQ(GetProcessInfo(nullptr, m_parser.get(), 77, m_info), zym::ZYM_OK);
  EXPECT_CALL(*m_parser, GetImagePath).WillOnce(Return(kFailure));
  EXPECT_EQ(GetProcessInfo(nullptr, m_parser.get(), 77, m_info), zym::ZYM_E_NOT_FOUND);
}

TEST_F(ToolsTest, Pid0NeverReadsStatAndIsTheKernel) {
  const auto parser = zym::CreateObject<StrictMock<MockParser>>();
  EXPECT_CALL(*parser, GetCmdline(0, _))
      .WillOnce(DoAll(SetArgReferee<1>(zym::types::string16_t(u"root=/dev/vda quiet")), Return(zym::ZYM_OK)));
  ASSERT_EQ(GetProcessInfo(m_tracer.get(), parser.get(), 0, m_info), zym::ZYM_OK);
  ProcessInformation kernel;
  kernel.creatorPid = kernel.parentPid = 0xffffffff;
  kernel.creatorUniquePid = kernel.parentUniquePid = 0xffffffffffffffff;
  kernel.imagePath = u"kernel memory";
  kernel.flags = 17;
  kernel.state = 1;
  kernel.commandLine = std::make_shared<const zym::types::string16_t>(u"root=/dev/vda quiet");
  kernel.realUserId = kernel.effectiveUserId = kernel.realGroupId = kernel.effectiveGroupId = 0;
  kernel.mountNamespaceId = m_info.mountNamespaceId;
  EXPECT_THAT(m_info, IsRecord(kernel));
}

TEST_F(ToolsTest, TheKernelWithoutACommandLineIsAFailureAtOnce) {
  EXPECT_CALL(*m_parser, GetCmdline(0, _)).WillOnce(Return(kFailure));
  EXPECT_EQ(Get(0), kFailure);
  EXPECT_THAT(m_info, IsRecord(OldRecord()));
}

TEST_F(ToolsTest, PidAllOnesIsAnInvalidArgumentAndReadsNothing) {
  const auto parser = zym::CreateObject<StrictMock<MockParser>>();
  EXPECT_EQ(GetProcessInfo(m_tracer.get(), parser.get(), 0xffffffff, m_info), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_THAT(m_info, IsRecord(OldRecord()));
}

TEST_F(ToolsTest, TheStepsComeInTheirOrder) {
  ReadsSucceed();
  const InSequence sequence;
  EXPECT_CALL(*m_parser, GetStat(77, _));
  EXPECT_CALL(*m_parser, GetWorkingDir(77, _));
  EXPECT_CALL(*m_parser, GetMountNamespaceId(77, _));
  EXPECT_CALL(*m_parser, GetImagePath(77, _));
  EXPECT_CALL(*m_parser, GetCmdline(77, _));
  EXPECT_CALL(*m_parser, GetComm).Times(0);
  EXPECT_EQ(Get(), zym::ZYM_OK);
}

TEST_F(ToolsTest, AFailedStatEndsTheRead) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetStat).WillOnce(Return(kFailure));
  EXPECT_CALL(*m_parser, GetWorkingDir).Times(0);
  EXPECT_EQ(Get(), kFailure);
  ExpectFailedCheck("procfs->GetStat(pid, stat)", "Cannot get process status from procfs for pid: 77");
  EXPECT_THAT(m_info, IsRecord(OldRecord()));
}

TEST_F(ToolsTest, AFailedWorkingDirectoryEndsTheRead) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetWorkingDir).WillOnce(Return(kFailure));
  EXPECT_CALL(*m_parser, GetMountNamespaceId).Times(0);
  EXPECT_EQ(Get(), kFailure);
  ExpectFailedCheck("procfs->GetWorkingDir(pid, cwd)", "Cannot get process cwd from procfs for pid: 77");
  EXPECT_THAT(m_info, IsRecord(OldRecord()));
}

TEST_F(ToolsTest, AFailedMountNamespaceEndsTheRead) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetMountNamespaceId).WillOnce(Return(kFailure));
  EXPECT_CALL(*m_parser, GetImagePath).Times(0);
  EXPECT_EQ(Get(), kFailure);
  ExpectFailedCheck("procfs->GetMountNamespaceId(pid, mountNsId)",
                    "Cannot get mount namespace id for pid: 77");
  EXPECT_THAT(m_info, IsRecord(OldRecord()));
}

TEST_F(ToolsTest, AProcessThatVanishesBeforeItsImageIsReadIsNotFound) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetImagePath).WillOnce([](PidType, NativePath&) {
    errno = ESRCH;
    return zym::ZYM_E_UNSPECIFIED;
  });
  EXPECT_CALL(*m_parser, GetCmdline).Times(0);
  EXPECT_EQ(Get(), zym::ZYM_E_NOT_FOUND) << "whatever the reader's own result is";
  EXPECT_TRUE(m_tracer->Has(500, "Failed to obtain image path for pid: 77, error: No such process"));
  EXPECT_THAT(m_info, IsRecord(OldRecord()));
}

TEST_F(ToolsTest, AProcessThatVanishesAtItsCommandLineIsNotFoundByTheReader) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetCmdline).WillOnce(Return(zym::ZYM_E_NOT_FOUND));
  EXPECT_EQ(Get(), zym::ZYM_E_NOT_FOUND);
  EXPECT_THAT(
      m_tracer->Find("(cmdlineResult)"),
      ::testing::EndsWith("(cmdlineResult),(ZYM_SUCCEEDED(_result)) failed: result = 0x8000004c (Not found) "
                          "Cannot get process cmdline from procfs for pid: 77"));
  EXPECT_THAT(m_info, IsRecord(OldRecord()));
}

TEST_F(ToolsTest, AnEmptyCommandLineIsNoFailure) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetCmdline).WillOnce(Return(zym::ZYM_FALSE));
  ASSERT_EQ(Get(), zym::ZYM_OK);
  ASSERT_NE(m_info.commandLine, nullptr);
  EXPECT_EQ(*m_info.commandLine, u"");
}

TEST_F(ToolsTest, AKernelThreadHasItsNameInSquareBracketsAndFlags17AndNoCommandLine) {
  ReadsSucceed();
  m_stat.flags = 0x200000 | 0x40;
  EXPECT_CALL(*m_parser, GetImagePath).Times(0);
  EXPECT_CALL(*m_parser, GetCmdline).Times(0);
  ASSERT_EQ(Get(), zym::ZYM_OK);
  EXPECT_EQ(m_info.imagePath, u"[kworker/0:1]");
  EXPECT_EQ(m_info.flags, 17U);
  ASSERT_NE(m_info.commandLine, nullptr);
  EXPECT_EQ(*m_info.commandLine, u"");
  EXPECT_TRUE(m_tracer->Has(800, "(may be modified) imagePath: [kworker/0:1]"));
}

TEST_F(ToolsTest, AKernelThreadWithoutANameHasNoImagePath) {
  ReadsSucceed();
  m_stat.flags = 0x200000;
  EXPECT_CALL(*m_parser, GetComm).WillOnce(Return(kFailure));
  ASSERT_EQ(Get(), zym::ZYM_OK);
  EXPECT_EQ(m_info.imagePath, u"");
  EXPECT_EQ(m_info.flags, 17U);
  EXPECT_TRUE(m_tracer->Has(500, "Cannot get comm for pid: 77"));
}

TEST_F(ToolsTest, ADeletedImageLosesItsSuffixAndHasNoFile) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetImagePath)
      .WillOnce(DoAll(SetArgReferee<1>("/no/such/program (deleted)"), Return(zym::ZYM_OK)));
  ASSERT_EQ(Get(), zym::ZYM_OK);
  EXPECT_EQ(m_info.imagePath, u"/no/such/program");
  EXPECT_EQ(m_info.flags, 16U);
  EXPECT_TRUE(m_tracer->Has(800, "procfs->GetImagePath: /no/such/program (deleted)"));
  EXPECT_TRUE(m_tracer->Has(800, "(may be modified) imagePath: /no/such/program"));
}

TEST_F(ToolsTest, OnlyOneSuffixIsCutAndOnlyAtTheEnd) {
  ReadsSucceed();
  for (const auto& [path, expected, flags] :
       {std::tuple{"/no/a (deleted) (deleted)", u"/no/a (deleted)", 16U},
        {"/no/a (deleted)/b", u"/no/a (deleted)/b", 0U},
        {"/no/a(deleted)", u"/no/a(deleted)", 0U},
        {" (deleted)", u"", 16U},
        {"/no/a (deleted) ", u"/no/a (deleted) ", 0U}}) {
    EXPECT_CALL(*m_parser, GetImagePath).WillOnce(DoAll(SetArgReferee<1>(path), Return(zym::ZYM_OK)));
    ASSERT_EQ(Get(), zym::ZYM_OK);
    EXPECT_EQ(m_info.imagePath, expected) << path;
    EXPECT_EQ(m_info.flags, flags) << path;
  }
}

TEST_F(ToolsTest, AMissingFileWithoutTheSuffixHasFlags0) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetImagePath)
      .WillOnce(DoAll(SetArgReferee<1>("/no/such/program"), Return(zym::ZYM_OK)));
  ASSERT_EQ(Get(), zym::ZYM_OK);
  EXPECT_EQ(m_info.flags, 0U);
}

// A name of a file is any bytes: who chooses an odd one must not hide his process by it.
TEST_F(ToolsTest, EachByteOfAnImagePathThatIsNotUtf8IsReplaced) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetImagePath).WillOnce(DoAll(SetArgReferee<1>("/a\xff\xc3z"), Return(zym::ZYM_OK)));
  ASSERT_EQ(Get(), zym::ZYM_OK);
  EXPECT_EQ(m_info.imagePath, u"/a\xfffd\xfffdz");
}

TEST_F(ToolsTest, EachByteOfAWorkingDirectoryThatIsNotUtf8IsReplaced) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetWorkingDir).WillOnce(DoAll(SetArgReferee<1>("/\xff/b"), Return(zym::ZYM_OK)));
  ASSERT_EQ(Get(), zym::ZYM_OK);
  EXPECT_EQ(m_info.workingDirectory, u"/\xfffd/b");
}

TEST_F(ToolsTest, ATimeBeyondTheRangeOfDatesIsAFailureThatLeavesTheRecord) {
  ReadsSucceed();
  m_stat.directoryChangeTime = std::numeric_limits<std::int64_t>::max();
  EXPECT_FALSE(ZYM_SUCCEEDED(Get()));
  EXPECT_TRUE(m_tracer->Has(300, "Invalid timestamp: epoch 9223372036854775807"));
  EXPECT_THAT(m_info, IsRecord(OldRecord()));
  m_stat.directoryChangeTime = -20'000'000'000;  // before the year 1601
  EXPECT_FALSE(ZYM_SUCCEEDED(Get()));
  EXPECT_TRUE(m_tracer->Has(300, "Invalid utc timestamp for posix platform "));
  EXPECT_THAT(m_info, IsRecord(OldRecord()));
}

TEST_F(ToolsTest, NoMemoryIsAFailureThatLetsNoExceptionOut) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetStat).WillOnce([](PidType, procfs::Stat&) -> zym::result_t {
    throw std::bad_alloc();
  });
  EXPECT_EQ(Get(), zym::ZYM_E_OUT_OF_MEMORY);
  EXPECT_CALL(*m_parser, GetCreds).WillOnce([](PidType, procfs::Creds&) -> zym::result_t {
    throw std::bad_alloc();
  });
  EXPECT_EQ(GetAdditionalProcessInfo(m_tracer.get(), m_parser.get(), m_info), zym::ZYM_E_OUT_OF_MEMORY);
}

// --- the additional and the full read ---

TEST_F(ToolsTest, TheAdditionalReadSetsEffectiveIdsGroupsAndEnvironment) {
  ReadsSucceed();
  m_info.pid = 77;
  m_info.environment = {"OLD=1"};
  ASSERT_EQ(GetAdditionalProcessInfo(m_tracer.get(), m_parser.get(), m_info), zym::ZYM_OK);
  EXPECT_EQ(m_info.realUserId, 103U) << "that of the base read stays";
  EXPECT_EQ(m_info.effectiveUserId, 12U);
  EXPECT_EQ(m_info.realGroupId, 21U);
  EXPECT_EQ(m_info.effectiveGroupId, 22U);
  EXPECT_THAT(m_info.environment, ::testing::ElementsAre("A=1", "B=2"));
}

TEST_F(ToolsTest, TheAdditionalReadOfTheKernelHasNothingToDo) {
  const auto parser = zym::CreateObject<StrictMock<MockParser>>();
  m_info.pid = 0;
  EXPECT_EQ(GetAdditionalProcessInfo(m_tracer.get(), parser.get(), m_info), zym::ZYM_FALSE);
}

TEST_F(ToolsTest, FailedCredentialsEndTheAdditionalRead) {
  ReadsSucceed();
  m_info.pid = 77;
  EXPECT_CALL(*m_parser, GetCreds).WillOnce(Return(kFailure));
  EXPECT_CALL(*m_parser, GetEnvironmentVariables).Times(0);
  EXPECT_EQ(GetAdditionalProcessInfo(m_tracer.get(), m_parser.get(), m_info), kFailure);
  ExpectFailedCheck("procfs->GetCreds(pid, creds)", "Cannot get process creds from procfs for pid: 77");
  EXPECT_FALSE(m_info.effectiveUserId);
}

TEST_F(ToolsTest, AFailedEnvironmentEndsTheAdditionalReadAndNoIdIsSet) {
  ReadsSucceed();
  m_info.pid = 77;
  EXPECT_CALL(*m_parser, GetEnvironmentVariables).WillOnce(Return(kFailure));
  EXPECT_EQ(GetAdditionalProcessInfo(m_tracer.get(), m_parser.get(), m_info), kFailure);
  ExpectFailedCheck("procfs->GetEnvironmentVariables(pid, envVars)",
                    "Cannot get process environ from procfs for pid: 77");
  EXPECT_FALSE(m_info.effectiveUserId || m_info.realGroupId || m_info.effectiveGroupId);
}

TEST_F(ToolsTest, TheFullReadIsBoth) {
  ReadsSucceed();
  ASSERT_EQ(GetFullProcessInfo(m_tracer.get(), m_parser.get(), 77, m_info), zym::ZYM_OK);
  EXPECT_EQ(m_info.imagePath, u"/usr/bin/pr\u00f6gram");
  EXPECT_EQ(m_info.realUserId, 1001U);
  EXPECT_EQ(m_info.effectiveUserId, 12U);
}

TEST_F(ToolsTest, AFailedBaseReadIsAFailureOfTheFullOne) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetStat).WillOnce(Return(kFailure));
  EXPECT_CALL(*m_parser, GetCreds).Times(0);
  EXPECT_EQ(GetFullProcessInfo(m_tracer.get(), m_parser.get(), 77, m_info), kFailure);
  ExpectFailedCheck("GetProcessInfo(tracer, procfs, pid, pinfo)",
                    "Cannot get full process info from procfs for pid: 77");
}

TEST_F(ToolsTest, AFailedAdditionalReadIsAFailureOfTheFullOneToo) {
  ReadsSucceed();
  EXPECT_CALL(*m_parser, GetCreds).WillOnce(Return(kFailure));
  EXPECT_EQ(GetFullProcessInfo(m_tracer.get(), m_parser.get(), 77, m_info), kFailure);
  ExpectFailedCheck("GetAdditionalProcessInfo(tracer, procfs, pinfo)",
                    "Cannot get additional process info from procfs for pid: 77");
  EXPECT_EQ(m_info.pid, 77U) << "what was read before stays";
}

TEST_F(ToolsTest, TheFullReadOfTheKernelIsASuccess) {
  EXPECT_CALL(*m_parser, GetCmdline(0, _)).WillOnce(Return(zym::ZYM_OK));
  EXPECT_EQ(GetFullProcessInfo(m_tracer.get(), m_parser.get(), 0, m_info), zym::ZYM_OK);
}

// --- GetPid ---

using system_interceptors::process_manager::IProcessControl;
using system_interceptors::process_manager::IProcessInformation;
using system_interceptors::process_manager::IProcessInformationEnumerator;
using system_interceptors::process_manager::IProcessManager;
using PublicRecord = system_interceptors::process_manager::ProcessInformation;

class FakeProcessInformation : public zym::object::Ifaces<IProcessInformation> {
 public:
  explicit FakeProcessInformation(zym::result_t result) : m_result(result) {}
  zym::result_t GetInformation(PublicRecord& info) override {
    if (ZYM_SUCCEEDED(m_result)) info.pid = 77;
    return m_result;
  }

 private:
  zym::result_t m_result;
};

class FakeProcessManager : public zym::object::Ifaces<IProcessManager> {
 public:
  zym::result_t Enumerate(IProcessInformationEnumerator**) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t GetInformation(PidType, IProcessInformation**) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t GetInformationByUniqueId(const UniquePidType& id,
                                         IProcessInformation** information) override {
    if (id != 1234) return kFailure;
    *information = zym::CreateObject<FakeProcessInformation>(recordResult).Detach();
    return zym::ZYM_OK;
  }
  zym::result_t GetControl(PidType, IProcessControl**) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t GetControlByUniqueId(const UniquePidType&, IProcessControl**) override {
    return zym::ZYM_E_NOT_IMPLEMENTED;
  }

  zym::result_t recordResult = zym::ZYM_OK;
};

class GetPidTest : public ToolsTest {
 protected:
  GetPidTest() { m_host.locator->Add(m_manager); }
  zym::result_t GetPid(UniquePidType uniquePid) {
    return qor::process_manager::GetPid(m_host.locator.get(), m_tracer.get(), uniquePid, m_pid);
  }

  test_support::FakeHost m_host;
  zym::intrusive_ptr<FakeProcessManager> m_manager = zym::CreateObject<FakeProcessManager>();
  PidType m_pid = 99;
};

TEST_F(GetPidTest, GivesThePidOfAnImage) {
  ASSERT_EQ(GetPid(1234), zym::ZYM_OK);
  EXPECT_EQ(m_pid, 77U);
  EXPECT_TRUE(m_tracer->Has(800, "GetPid: uniquePid 1234 corresponds to pid 77"));
}

TEST_F(GetPidTest, AMissingProcessManagerIsAFailedCheck) {
  m_host.locator->FailWith(IProcessManager::kIid, kFailure);
  EXPECT_EQ(GetPid(1234), kFailure);
  EXPECT_THAT(m_tracer->Find("Failed to get IProcessManager"),
              HasSubstr("failed: result = 0x8000006a (Invalid state) Failed to get IProcessManager"));
  EXPECT_EQ(m_pid, 99U);
}

TEST_F(GetPidTest, AnUnknownUniquePidIsAFailedCheck) {
  EXPECT_EQ(GetPid(5), kFailure);
  ExpectFailedCheck("processManager->GetInformationByUniqueId(uniquePid, processInformation.Ref())",
                    "Failed to get IProcessInformation for uniquePid 5");
  EXPECT_EQ(m_pid, 99U);
}

TEST_F(GetPidTest, ARecordThatCannotBeHadIsAFailedCheck) {
  m_manager->recordResult = kFailure;
  EXPECT_EQ(GetPid(1234), kFailure);
  ExpectFailedCheck("processInformation->GetInformation(informationOfProcess)",
                    "Failed to get ProcessInformation");
  EXPECT_EQ(m_pid, 99U);
}

}  // namespace
}  // namespace qor::process_manager
