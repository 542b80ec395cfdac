// What is known of one process: from the cache, from /proc, and frozen from then on.
#include "process_manager/process/process_information.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "process_manager/process/process_description.h"
#include "qor_common/mount_namespace.h"
#include "tests/process_manager/process/process_objects_fixture.h"
#include "zym/exception.h"
#include "zym/exception_to_result.h"

namespace qor::process_manager {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

constexpr const char* kMissing =
    "ProcessInformation: Process info is missing in cache, trying to read info from procfs";

class ProcessInformationTest : public ProcessObjectsTest {
 protected:
  zym::intrusive_ptr<ProcessInformation> Make(PidType pid, bool full = false) {
    return zym::CreateObject<ProcessInformation>(Locator(), pid, full);
  }
  zym::intrusive_ptr<ProcessInformation> MakeByUniquePid(UniquePidType uniquePid, bool full = false) {
    return zym::CreateObject<ProcessInformation>(Locator(), uniquePid, full);
  }

  // The code that the framework makes of what `make` throws; 0 when it throws nothing.
  template <class F>
  zym::result_t CodeOf(F make) {
    try {
      static_cast<void>(make());
      return zym::ZYM_OK;
    } catch (...) {
      return zym::ExceptionToResult(Tracer());
    }
  }
  zym::result_t CodeOfMaking(PidType pid, bool full = false) {
    return CodeOf([&] { return Make(pid, full); });
  }

  std::vector<std::string> TracedCalls() const {
    std::vector<std::string> texts;
    for (const test_support::TraceRecord& record : m_host->tracer->Records()) {
      EXPECT_EQ(record.level, 800U) << record.text;
      if (record.text.starts_with("ProcessInformation")) texts.push_back(record.text);
    }
    return texts;
  }
};

// --- where it comes from ---

TEST_F(ProcessInformationTest, IsAskedOfTheCacheFirst) {
  Learn(ReadOf(kPid, 5, u"/bin/cached"));
  const auto information = Make(kPid);
  EXPECT_EQ(RecordOf(*information).imagePath, u"/bin/cached");
  EXPECT_EQ(m_parser->reads, 0U);
}

TEST_F(ProcessInformationTest, AMissIsReadFromProcfsAndTheCacheIsTaught) {
  const PublicRecord record = RecordOf(*Make(kPid));
  EXPECT_EQ(record.imagePath, u"/usr/bin/program");
  EXPECT_EQ(m_parser->reads, 1U);
  const Info known = Ask(kPid);
  EXPECT_EQ(record.uniquePid, known.uniquePid);
  EXPECT_EQ(record.parentUniquePid, known.parentUniquePid);
  EXPECT_EQ(record.creatorPid, 5U);
  EXPECT_EQ(record.creatorUniquePid, known.creatorUniquePid);
  EXPECT_NE(record.uniquePid, 0U);
  Make(kPid);
  EXPECT_EQ(m_parser->reads, 1U) << "the second one asks the cache";
}

TEST_F(ProcessInformationTest, AnEntryThatIsNotReadyTakesTheProcfsRouteAndUpdateFillsThatSameEntry) {
  Fork(kChild, kPid);  // makes an entry for the parent, of which nothing is known
  const UniquePidType parentUniquePid = Ask(kChild).parentUniquePid;
  EXPECT_FALSE(Knows(kPid));
  const PublicRecord record = RecordOf(*Make(kPid));
  EXPECT_EQ(m_parser->reads, 1U);
  EXPECT_EQ(record.uniquePid, parentUniquePid);
  EXPECT_EQ(Ask(kPid).imagePath, u"/usr/bin/program");
}

TEST_F(ProcessInformationTest, AProcessThatExitedLessThanASecondAgoIsServedFromTheDeadTable) {
  Fork(kGone);
  Finish(kGone);
  m_now += kRetention;
  EXPECT_EQ(RecordOf(*Make(kGone)).state, static_cast<std::uint32_t>(kTerminated));
  EXPECT_EQ(m_parser->reads, 0U);
}

TEST_F(ProcessInformationTest, AProcessThatLeftLongerAgoFailsWithTheParsersCode) {
  Fork(kGone);
  Finish(kGone);
  m_now += kRetention + 1;
  EXPECT_EQ(static_cast<std::uint32_t>(CodeOfMaking(kGone)), 0x8000004cU);
  EXPECT_EQ(m_parser->reads, 1U);
}

TEST_F(ProcessInformationTest, AnEarlierImageIsFoundByItsUniquePidWhileTheProcessLives) {
  Fork();
  const EventInfo exec = ReportExec(ReadOf(kChild, kParent, u"/bin/second")).exit;
  EXPECT_EQ(RecordOf(*MakeByUniquePid(exec.info.uniquePid)).imagePath, u"/bin/forked");
  EXPECT_EQ(m_parser->reads, 0U);
}

TEST_F(ProcessInformationTest, AUniquePidThatIsNotCachedIsReadByItsPidAndGetsANewOne) {
  const UniquePidType old = 0x11111111'00000000 | kPid;
  const PublicRecord record = RecordOf(*MakeByUniquePid(old));
  EXPECT_EQ(record.pid, kPid);
  EXPECT_EQ(record.uniquePid, Ask(kPid).uniquePid);
  EXPECT_NE(record.uniquePid, old);
}

TEST_F(ProcessInformationTest, ADeadProcessIsNotFoundByItsUniquePid) {
  const UniquePidType uniquePid = Fork(kGone).info.uniquePid;
  Finish(kGone);
  EXPECT_EQ(CodeOf([&] { return MakeByUniquePid(uniquePid); }), zym::ZYM_E_NOT_FOUND);
}

TEST_F(ProcessInformationTest, TheKernelIsKnownInFull) {
  const auto kernel = Make(0, true);
  const PublicRecord record = RecordOf(*kernel);
  EXPECT_EQ(record.pid, 0U);
  EXPECT_EQ(record.uniquePid, 0U);
  EXPECT_EQ(record.parentPid, kNoPid);
  EXPECT_EQ(record.imagePath, u"kernel memory");
  EXPECT_EQ(record.flags, 17U);
  std::uint32_t id = 1;
  EXPECT_EQ(kernel->GetEffectiveGroupId(id), zym::ZYM_OK);
  EXPECT_EQ(id, 0U);
  m_host->tracer->Clear();
  Make(0, true);
  EXPECT_TRUE(Traced(800, "ProcessInformation: Using cached process info: "))
      << "its environment is empty, and yet nothing is read again";
}

TEST_F(ProcessInformationTest, APidOfAllOnesIsInvalid) {
  EXPECT_EQ(CodeOfMaking(kNoPid), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(CodeOfMaking(kNoPid, true), zym::ZYM_E_INVALID_ARGUMENT);
}

// --- how much ---

TEST_F(ProcessInformationTest, NotFullReadsNoCredentialsAndNoEnvironment) {
  const auto information = Make(kPid);
  std::uint32_t id = 99;
  EXPECT_EQ(information->GetRealUserId(id), zym::ZYM_OK);
  EXPECT_EQ(id, 11U);
  EXPECT_EQ(information->GetEffectiveUserId(id), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(information->GetRealGroupId(id), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(information->GetEffectiveGroupId(id), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(id, 11U) << "a failure leaves the value alone";
  zym::types::vector_t<zym::types::string_t> variables{"old"};
  EXPECT_EQ(information->GetEnvironmentVariables(variables), zym::ZYM_E_NOT_FOUND);
  EXPECT_THAT(variables, ElementsAre("old"));
}

TEST_F(ProcessInformationTest, TheRealUserIsTheOwnerOfTheDirectoryAndTheEffectiveOneFailsUntilAFullRead) {
  std::uint32_t id = 0;
  EXPECT_EQ(Make(kPid)->GetRealUserId(id), zym::ZYM_OK);
  EXPECT_EQ(id, 11U);
  EXPECT_EQ(Make(kPid)->GetEffectiveUserId(id), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(Make(kPid, true)->GetEffectiveUserId(id), zym::ZYM_OK);
  EXPECT_EQ(id, 12U);
  EXPECT_EQ(Make(kPid)->GetEffectiveUserId(id), zym::ZYM_OK) << "the cache has it now";
}

void ExpectFull(ProcessInformation& information) {
  std::uint32_t id = 0;
  EXPECT_EQ(information.GetRealUserId(id), zym::ZYM_OK);
  EXPECT_EQ(id, 11U);
  EXPECT_EQ(information.GetEffectiveUserId(id), zym::ZYM_OK);
  EXPECT_EQ(id, 12U);
  EXPECT_EQ(information.GetRealGroupId(id), zym::ZYM_OK);
  EXPECT_EQ(id, 21U);
  EXPECT_EQ(information.GetEffectiveGroupId(id), zym::ZYM_OK);
  EXPECT_EQ(id, 22U);
  zym::types::vector_t<zym::types::string_t> variables;
  EXPECT_EQ(information.GetEnvironmentVariables(variables), zym::ZYM_OK);
  EXPECT_THAT(variables, ElementsAre("A=1", "B=2"));
}

TEST_F(ProcessInformationTest, FullReadsEverythingAtAMiss) {
  ExpectFull(*Make(kPid, true));
  EXPECT_EQ(Ask(kPid).environment.size(), 2U);
}

TEST_F(ProcessInformationTest, FullByUniquePidReadsEverythingToo) {
  ExpectFull(*MakeByUniquePid(kPid, true));
}

TEST_F(ProcessInformationTest, FullAddsToAHitWhatItLacks) {
  Make(kPid);
  m_host->tracer->Clear();
  ExpectFull(*Make(kPid, true));
  EXPECT_EQ(m_parser->reads, 1U) << "the base is not read again";
  EXPECT_EQ(Ask(kPid).effectiveUserId, 12U);
  EXPECT_THAT(TracedCalls(),
              ElementsAre("ProcessInformation() ",
                          MatchesRegex("ProcessInformation: Process info is found in cache and is going to "
                                       "be fulfilled with additional info: pid: 77, .*env: A=1;B=2, .*"),
                          "ProcessInformation() <- ", "ProcessInformation() 77"));
}

// What the cache has without its `field`.
struct Lack {
  const char* field;
  void (*drop)(Info& info);
  bool isRead;
};

class ProcessInformationLacks : public ProcessInformationTest, public testing::WithParamInterface<Lack> {};

TEST_P(ProcessInformationLacks, AFullLookReadsAgain) {
  Info info = ReadOf(kPid, 5, u"/bin/x");
  GetParam().drop(info);
  Learn(info);
  const auto information = Make(kPid, true);
  std::uint32_t id = 0;
  EXPECT_EQ(information->GetRealGroupId(id), zym::ZYM_OK);
  EXPECT_EQ(id, GetParam().isRead ? 21U : 1002U);
}

INSTANTIATE_TEST_SUITE_P(
    Of, ProcessInformationLacks,
    testing::Values(Lack{"Nothing", [](Info&) {}, false},
                    Lack{"Environment", [](Info& record) { record.environment.clear(); }, true},
                    Lack{"RealGroup", [](Info& record) { record.realGroupId.reset(); }, true},
                    Lack{"EffectiveGroup", [](Info& record) { record.effectiveGroupId.reset(); }, true},
                    // Not asked for: meant.
                    Lack{"EffectiveUser", [](Info& record) { record.effectiveUserId.reset(); }, false}),
    [](const auto& lack) { return lack.param.field; });

TEST_F(ProcessInformationTest, AHitGoesOnWithWhatItHasWhenTheRestCannotBeRead) {
  Make(kPid);
  m_parser->processes[kPid].environmentIsHidden = true;
  m_host->tracer->Clear();
  const auto information = Make(kPid, true);
  EXPECT_EQ(RecordOf(*information).imagePath, u"/usr/bin/program");
  std::uint32_t id = 0;
  EXPECT_EQ(information->GetEffectiveUserId(id), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(Traced(300,
                     "'(GetAdditionalProcessInfo(tracer, procfs, m_info))=0x8000004c (Not found)' "
                     "Failed to obtain additional process info for pid=77"));
  EXPECT_FALSE(m_host->tracer->Has("Using cached process info"));
}

// A cache that has a process, and forgets it before it can be told more.
class ForgetfulCache : public zym::object::Ifaces<IProcessInfoProvider> {
 public:
  bool Get(pid_t pid, Info& info) override {
    info = ReadOf(pid, 5, u"/bin/x");
    info.environment.clear();
    return true;
  }
  bool GetByUniquePid(UniquePidType uniquePid, Info& info) override {
    return Get(static_cast<pid_t>(PidOf(uniquePid)), info);
  }
  void Update(Info&) override {}
  bool UpdateAdditionalInfo(Info&) override { return false; }
};

TEST_F(ProcessInformationTest, ACacheThatTakesNoMoreOfAHitIsAFailure) {
  m_host->locator->Add(zym::CreateObject<ForgetfulCache>());
  try {
    Make(kPid, true);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const zym::CheckFailedException& e) {
    EXPECT_THAT(e.what(), HasSubstr("Cannot update additional info in cache"));
  }
}

// --- what fails ---

TEST_F(ProcessInformationTest, AServiceThatIsMissingIsNamed) {
  const struct {
    zym::iid_t iid;
    const char* text;
  } kCases[] = {{0x2b6ab0fb, "Cannot get zym::ITracerCategoryFilter interface"},
                {0xffc9e198, "Cannot get IProcessInfoProvider interface"},
                {0xc9b36ad4, "Cannot get procfs::IParser interface"}};
  for (const auto& missing : kCases) {
    const test_support::FakeHost other;
    other.locator->Add(m_cache, IProcessInfoProvider::kIid);
    other.locator->Add(m_parser, procfs::IParser::kIid);
    other.locator->FailWith(missing.iid, zym::ZYM_E_LOCKED);
    try {
      static_cast<void>(zym::CreateObject<ProcessInformation>(other.locator.get(), kPid, false));
      ADD_FAILURE() << missing.text;
    } catch (const zym::CheckResultFailedException& e) {
      EXPECT_EQ(e.Result(), zym::ZYM_E_LOCKED);
      EXPECT_TRUE(other.tracer->Has(800, "ProcessInformation() ")) << "before anything is asked for";
      EXPECT_TRUE(std::string(e.what()).find(missing.text) != std::string::npos ||
                  other.tracer->Has(300, missing.text))
          << missing.text;
    }
  }
}

TEST_F(ProcessInformationTest, TheReaderIsAskedForByItsExpression) {
  m_host->locator->Remove(procfs::IParser::kIid);
  EXPECT_EQ(CodeOfMaking(kPid), zym::ZYM_E_NO_INTERFACE);
  EXPECT_THAT(
      m_host->tracer->Find("Cannot get procfs::IParser interface"),
      MatchesRegex(R"(process_manager/process/process_information\.cpp:[0-9]+\(zym::GetInterface\(sl, )"
                   R"(procfs\.Ref\(\)\)\),\(ZYM_SUCCEEDED\(_result\)\) failed: result = 0x80000001 )"
                   R"(\(Interface not supported\) Cannot get procfs::IParser interface)"));
}

TEST_F(ProcessInformationTest, AReadThatFailsIsTracedByItsLevel) {
  EXPECT_EQ(CodeOfMaking(kGone, false), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(
      m_host->tracer->Find("Failed to obtain base process info for pid=78"),
      "GetInfoFromProcfs: '(GetProcessInfo(tracer, procfs, pid, m_info))=0x8000004c (Not found)' Failed "
      "to obtain base process info for pid=78");
  EXPECT_EQ(CodeOfMaking(kGone, true), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(Traced(300,
                     "'(GetFullProcessInfo(tracer, procfs, pid, m_info))=0x8000004c (Not found)' Failed "
                     "to obtain full process info for pid=78"));
  EXPECT_EQ(CodeOf([&] { return MakeByUniquePid(0x500000000ULL | kGone); }), zym::ZYM_E_NOT_FOUND);
}

TEST_F(ProcessInformationTest, AFullReadFailsWhenTheEnvironmentCannotBeRead) {
  m_parser->processes[kPid].environmentIsHidden = true;
  EXPECT_EQ(CodeOfMaking(kPid, true), zym::ZYM_E_NOT_FOUND);
  EXPECT_FALSE(Knows(kPid)) << "what was read in part is nothing to teach";
}

class WithoutKey : public ProcessInformation {
 public:
  explicit WithoutKey(zym::IServiceLocator* locator)
      : ProcessInformation(locator, std::nullopt, std::nullopt, false) {}
};

TEST_F(ProcessInformationTest, WithoutAnyKeyItIsABadOptionalAccess) {
  EXPECT_THROW(zym::CreateObject<WithoutKey>(Locator()), std::bad_optional_access);
}

// --- what it says ---

TEST_F(ProcessInformationTest, TracesWhereItComesFrom) {
  Make(kPid);
  EXPECT_THAT(TracedCalls(), ElementsAre("ProcessInformation() ", kMissing, "ProcessInformation() <- ",
                                         "ProcessInformation() 77"));
  m_host->tracer->Clear();
  const Info info = Ask(kPid);
  MakeByUniquePid(info.uniquePid);
  EXPECT_THAT(TracedCalls(), ElementsAre("ProcessInformation() ",
                                         "ProcessInformation: Using cached process info: " +
                                             DescribeProcess(info, m_host->categoryFilter.get()),
                                         "ProcessInformation() <- ",
                                         "ProcessInformation() " + std::to_string(info.uniquePid) + " (77)"));
}

TEST_F(ProcessInformationTest, HoldsBackWhatIsPrivate) {
  m_parser->processes[kPid].commandLine = u"login --password=secret";
  m_parser->processes[kPid].environment = {"TOKEN=secret"};
  m_host->categoryFilter->Allow(false);
  RecordOf(*Make(kPid));
  Make(kPid, true);
  RecordOf(*Make(kPid, true));
  EXPECT_FALSE(m_host->tracer->Has("secret"));
  EXPECT_TRUE(m_host->tracer->Has("cmd: skipped by privacy policy, env: skipped by privacy policy"));
}

TEST_F(ProcessInformationTest, GivesThePublicRecordAndTracesIt) {
  const Info info = Learn(ReadOf(kPid, 5, u"/bin/x"));
  const auto information = Make(kPid);
  m_host->tracer->Clear();
  const PublicRecord record = RecordOf(*information);
  EXPECT_EQ(record.pid, kPid);
  EXPECT_EQ(record.parentPid, 5U);
  EXPECT_EQ(record.sessionId, 7U);
  EXPECT_EQ(record.startTime, 5000);
  EXPECT_EQ(record.imagePath, u"/bin/x");
  EXPECT_EQ(record.workingDirectory, u"/home");
  EXPECT_EQ(record.commandLine, u"/bin/x");
  EXPECT_EQ(record.userId, 1000U);
  EXPECT_EQ(record.state, static_cast<std::uint32_t>(kCreated));
  EXPECT_TRUE(Traced(800, "GetInformation() " + DescribeProcess(info, m_host->categoryFilter.get())));
}

TEST_F(ProcessInformationTest, ThePublicUserIdOfARecordWithoutARealUserIdIsZero) {
  Info info = ReadOf(kPid, 5, u"/bin/x");
  info.realUserId.reset();
  Learn(info);
  const auto information = Make(kPid);
  EXPECT_EQ(RecordOf(*information).userId, 0U);
  std::uint32_t id = 0;
  EXPECT_EQ(information->GetRealUserId(id), zym::ZYM_E_NOT_FOUND);
}

struct IdOperation {
  const char* name;
  zym::result_t (ProcessInformation::*get)(std::uint32_t&);
  std::optional<std::uint32_t> Info::*field;
  const char* word;
};

class ProcessInformationIds : public ProcessInformationTest,
                              public testing::WithParamInterface<IdOperation> {};

TEST_P(ProcessInformationIds, OneThatIsThereIsGiven) {
  Info info = ReadOf(kPid, 5, u"/bin/x");
  info.*GetParam().field = 4242;
  Learn(info);
  const auto information = Make(kPid);
  m_host->tracer->Clear();
  std::uint32_t id = 0;
  EXPECT_EQ(((*information).*GetParam().get)(id), zym::ZYM_OK);
  EXPECT_EQ(id, 4242U);
  ASSERT_EQ(m_host->tracer->Records().size(), 1U);
  EXPECT_EQ(m_host->tracer->Records()[0].text, std::string(GetParam().name) + "() ");
  EXPECT_EQ(m_host->tracer->Records()[0].level, 800U);
}

TEST_P(ProcessInformationIds, OneThatIsAbsentIsAnErrorAndNeverAFreshRead) {
  Info info = ReadOf(kPid, 5, u"/bin/x");
  (info.*GetParam().field).reset();
  Learn(info);
  const auto information = Make(kPid);
  std::uint32_t id = 7;
  EXPECT_EQ(((*information).*GetParam().get)(id), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(id, 7U);
  EXPECT_EQ(m_parser->reads, 0U);
  const std::string word = GetParam().word;
  const std::string text = m_host->tracer->Find(word + " not found");
  EXPECT_THAT(text, MatchesRegex(R"(process_manager/process/process_information\.cpp:[0-9]+\()" + word +
                                 R"(\.has_value\(\)\),\(bool\) failed: result = false )" + word +
                                 " not found for process with pid: 77"));
  EXPECT_TRUE(Traced(300, text));
}

INSTANTIATE_TEST_SUITE_P(
    Of, ProcessInformationIds,
    testing::Values(
        IdOperation{"GetRealUserId", &ProcessInformation::GetRealUserId, &Info::realUserId, "ruid"},
        IdOperation{"GetEffectiveUserId", &ProcessInformation::GetEffectiveUserId, &Info::effectiveUserId,
                    "euid"},
        IdOperation{"GetRealGroupId", &ProcessInformation::GetRealGroupId, &Info::realGroupId, "rgid"},
        IdOperation{"GetEffectiveGroupId", &ProcessInformation::GetEffectiveGroupId, &Info::effectiveGroupId,
                    "egid"}),
    [](const auto& operation) { return operation.param.name; });

TEST_F(ProcessInformationTest, AnEmptyEnvironmentIsAnError) {
  const auto information = Make(kPid);
  m_host->tracer->Clear();
  zym::types::vector_t<zym::types::string_t> variables;
  EXPECT_EQ(information->GetEnvironmentVariables(variables), zym::ZYM_E_NOT_FOUND);
  const std::string text = m_host->tracer->Find("environ not found");
  EXPECT_THAT(text, MatchesRegex(R"(process_manager/process/process_information\.cpp:[0-9]+)"
                                 R"(\(!m_info\.m_environmentVariables\.empty\(\)\),\(bool\) failed: )"
                                 R"(result = false environ not found for process with pid: 77)"));
  EXPECT_TRUE(Traced(300, text));
}

TEST_F(ProcessInformationTest, NamesAndTheAuditUserAreNotImplemented) {
  const auto information = Make(kPid, true);
  std::uint32_t id = 7;
  zym::types::string_t name = "old";
  EXPECT_EQ(static_cast<std::uint32_t>(information->GetAuditUserId(id)), 0x80000043U);
  EXPECT_EQ(static_cast<std::uint32_t>(information->GetUserName(name)), 0x80000043U);
  EXPECT_EQ(static_cast<std::uint32_t>(information->GetGroupName(name)), 0x80000043U);
  EXPECT_EQ(id, 7U);
  EXPECT_EQ(name, "old");
}

TEST_F(ProcessInformationTest, TellsTheMountNamespace) {
  const std::uint64_t own = tools::GetOwnNamespaceId();
  const struct {
    std::uint64_t id;
    zym::result_t isHost;
    const char* text;
  } kCases[] = {{own, zym::ZYM_OK, "IsHostMountNamespace() <- 0"},
                {own + 1, zym::ZYM_FALSE, "IsHostMountNamespace() <- 1"},
                {kNoMountNamespace, zym::ZYM_FALSE, "IsHostMountNamespace() <- 1"}};
  pid_t pid = 100;
  for (const auto& of : kCases) {
    Info info = ReadOf(++pid, 5, u"/bin/x");
    info.mountNamespaceId = of.id;
    Learn(info);
    const auto information = Make(static_cast<PidType>(pid));
    m_host->tracer->Clear();
    std::uint64_t id = 0;
    EXPECT_EQ(information->GetMountNamespaceId(id), zym::ZYM_OK);
    EXPECT_EQ(id, of.id);
    EXPECT_TRUE(Traced(800, "GetMountNamespaceId() <- namespaceId=" + std::to_string(of.id)));
    EXPECT_EQ(information->IsHostMountNamespace(), of.isHost);
    EXPECT_TRUE(Traced(800, of.text));
  }
}

// --- what it is ---

TEST_F(ProcessInformationTest, NothingChangesAfterConstruction) {
  const auto information = Make(kPid);
  m_parser->processes[kPid].imagePath = "/usr/bin/other";
  ReportExec(ReadOf(kPid, 5, u"/bin/second"));
  Finish(kPid);
  m_parser->processes.clear();
  m_host->locator->Clear();
  const PublicRecord record = RecordOf(*information);
  EXPECT_EQ(record.imagePath, u"/usr/bin/program");
  EXPECT_EQ(record.state, static_cast<std::uint32_t>(kCreated));
}

TEST_F(ProcessInformationTest, HasAllItsInterfaces) {
  const auto information = Make(kPid);
  for (const zym::iid_t iid : {zym::IObject::kIid, IProcessInformation::kIid, IPosixProcessInformation::kIid,
                               IPosixProcessInformation2::kIid}) {
    zym::intrusive_ptr<zym::IObject> found;
    EXPECT_EQ(information->QueryInterface(iid, reinterpret_cast<void**>(found.Ref())), zym::ZYM_OK) << iid;
  }
  zym::intrusive_ptr<IPosixProcessInformation> first;
  zym::intrusive_ptr<IPosixProcessInformation2> second;
  ASSERT_EQ(zym::QueryInterface(information, first.Ref()), zym::ZYM_OK);
  ASSERT_EQ(zym::QueryInterface(information, second.Ref()), zym::ZYM_OK);
  EXPECT_EQ(static_cast<void*>(first.get()), static_cast<void*>(second.get())) << "one table of operations";
}

}  // namespace
}  // namespace qor::process_manager
