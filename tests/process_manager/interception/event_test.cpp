#include "process_manager/interception/event.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "process_manager/interception/event_names.h"
#include "process_manager/interception/fake_event_services.h"
#include "process_manager/process/process_description.h"
#include "support/fake_services.h"
#include "zym/module_counter.h"
#include "zym/service_provider.h"
#include "zym/utf.h"

namespace qor::process_manager {
namespace {

using test_support::FakeEventInfoProvider;
using test_support::FakeExecListener;
using test_support::PlainExecListener;
namespace event_type = system_interceptors::event_type;

using View = zym::types::range_t<const std::uint8_t*>;

std::shared_ptr<const zym::types::string16_t> SharedText(std::u16string_view text) {
  return std::make_shared<const zym::types::string16_t>(text);
}

// A process with a different value in each field.
process_cache::EventInfo MakeInfo() {
  process_cache::EventInfo info;
  info.sequence = 77;
  info.timestamp = 0x0102030405060708;
  info.info.pid = 4001;
  info.info.creatorPid = 4002;
  info.info.parentPid = 4003;
  info.info.uniquePid = 0x1111222233334001;
  info.info.creatorUniquePid = 0x1111222233334002;
  info.info.parentUniquePid = 0x1111222233334003;
  info.info.sessionId = 4004;
  info.info.imagePath = u"/usr/bin/\u00e9tude";
  info.info.workingDirectory = u"/home";
  info.info.commandLine = SharedText(u"etude --now");
  info.info.state = kCreated;
  info.info.realUserId = 4005;
  info.info.mountNamespaceId = 0xf0000001;
  return info;
}

template <class T>
std::optional<T> Read(Event& event, std::uint32_t param) {
  View view;
  T value{};
  if (event.GetParam(param, &view) != zym::ZYM_OK || view.size() != sizeof(T)) return std::nullopt;
  std::memcpy(&value, view.begin(), sizeof(T));
  return value;
}

std::u16string ReadText(Event& event, std::uint32_t param) {
  View view;
  EXPECT_EQ(event.GetParam(param, &view), zym::ZYM_OK);
  std::u16string text(view.size() / sizeof(char16_t), u'\0');
  std::memcpy(text.data(), view.begin(), view.size());
  return text;
}

class EventTest : public testing::Test {
 protected:
  EventTest() { m_host.locator->Add(m_provider); }
  ~EventTest() override {
    m_context = {};
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objectsBefore);
  }

  zym::intrusive_ptr<Event> Make(std::uint32_t type, process_cache::EventInfo info,
                                 const zym::intrusive_ptr<IExecListener>& listener = {},
                                 ImageDescriptors descriptors = {}) {
    if (!m_context)
      m_context = std::make_shared<const EventContext>(m_host.locator.get(), m_watchdogExecutable);
    return zym::CreateObject<Event>(m_context, type, std::move(info), listener, std::move(descriptors));
  }
  zym::intrusive_ptr<Event> MakeCreation(process_cache::EventInfo info = MakeInfo()) {
    return Make(event_type::kCreateProcess, std::move(info));
  }

  // How often the image of such a process is counted.
  std::size_t TimesCounted(const process_cache::EventInfo& info) {
    const std::size_t before = m_host.scanStatistics->Paths().size();
    EXPECT_TRUE(MakeCreation(info)->Complete());
    return m_host.scanStatistics->Paths().size() - before;
  }

  bool Has(std::uint32_t level, std::string_view text) {
    return m_host.tracer->Has(level, "Event::" + std::string(text));
  }

  test_support::FakeHost m_host;
  zym::intrusive_ptr<FakeEventInfoProvider> m_provider = zym::CreateObject<FakeEventInfoProvider>();
  const std::int32_t m_objectsBefore = zym::ModuleObjectCounter::Value();
  NativePath m_watchdogExecutable = "/nonexistent/wdserver";
  std::shared_ptr<const EventContext> m_context;
};

// --- What it says of itself. ---

TEST_F(EventTest, ItsInterfacesAreTheEventAndThePropertyBag) {
  const auto event = MakeCreation();
  void* primary = nullptr;
  zym::intrusive_ptr<ISystemEvent> asEvent;
  zym::intrusive_ptr<zym::IPropertyBag> asBag;
  void* other = nullptr;
  ASSERT_EQ(event->QueryInterface(0, &primary), zym::ZYM_OK);
  event->Release();
  ASSERT_EQ(event->QueryInterface(0xe8446ab7, reinterpret_cast<void**>(asEvent.Ref())), zym::ZYM_OK);
  ASSERT_EQ(event->QueryInterface(0x3a4e9ae4, reinterpret_cast<void**>(asBag.Ref())), zym::ZYM_OK);
  EXPECT_EQ(primary, asEvent.get());
  EXPECT_EQ(event->QueryInterface(zym::IObjectFactory::kIid, &other), zym::ZYM_E_NO_INTERFACE);
  EXPECT_EQ(other, nullptr);
}

TEST_F(EventTest, EveryParameterIsAViewOfItsField) {
  const auto event = MakeCreation();
  EXPECT_EQ(Read<std::uint64_t>(*event, 0x00000014), 0xf0000001);
  EXPECT_EQ(Read<std::uint64_t>(*event, 0x0c000007), 0x0102030405060708);
  EXPECT_EQ(Read<std::uint32_t>(*event, 0x01000800), 4005);
  EXPECT_EQ(Read<std::uint32_t>(*event, 0x02000000), 4001);
  EXPECT_EQ(Read<std::uint32_t>(*event, 0x02000100), 4003);
  EXPECT_EQ(Read<std::uint64_t>(*event, 0x05000200), 0x1111222233334001);
  EXPECT_EQ(Read<std::uint64_t>(*event, 0x85000004), 0x1111222233334001);
  EXPECT_EQ(Read<std::uint64_t>(*event, 0x05000300), 0x1111222233334003);
  EXPECT_EQ(Read<std::uint32_t>(*event, 0x05000f00), 4004);
  EXPECT_EQ(Read<std::uint32_t>(*event, 0x82000002), 4004);
  EXPECT_EQ(ReadText(*event, 0x0b000400), u"/usr/bin/\u00e9tude");
  EXPECT_EQ(Read<std::uint8_t>(*event, 0x0e000000), 0);
  EXPECT_EQ(Read<std::uint32_t>(*event, 0x82001500), 1);
  EXPECT_EQ(Read<std::uint32_t>(*event, 0x82001600), 1);
  EXPECT_EQ(Read<std::uint64_t>(*event, 0x85000900), 0);
  EXPECT_EQ(ReadText(*event, 0x8b000600), u"/home");
  EXPECT_EQ(ReadText(*event, 0x8b000700), u"etude --now");

  View first;
  View again;
  event->GetParam(0x0b000400, &first);
  event->GetParam(0x0b000400, &again);
  EXPECT_EQ(first.begin(), again.begin()) << "a view, and no copy";
}

TEST_F(EventTest, WhatWasNotReadIsNotFoundAndTheViewIsLeftAlone) {
  process_cache::EventInfo info = MakeInfo();
  info.info.realUserId.reset();
  info.info.commandLine.reset();
  const auto event = MakeCreation(std::move(info));
  const std::uint8_t mark = 0;
  for (const std::uint32_t param : {0x01000800U, 0x8b000700U}) {
    View view{&mark, &mark + 1};
    EXPECT_EQ(event->GetParam(param, &view), zym::ZYM_E_NOT_FOUND);
    EXPECT_EQ(view.begin(), &mark);
  }
}

TEST_F(EventTest, EmptyTextsAreFoundAndEmpty) {
  process_cache::EventInfo info = MakeInfo();
  info.info.imagePath.clear();
  info.info.workingDirectory.clear();
  info.info.commandLine = SharedText(u"");
  const auto event = MakeCreation(std::move(info));
  for (const std::uint32_t param : {0x0b000400U, 0x8b000600U, 0x8b000700U})
    EXPECT_EQ(ReadText(*event, param), u"");
}

TEST_F(EventTest, AnUnknownParameterIsNotSupportedAndTracedInHexadecimal) {
  const auto event = MakeCreation();
  View view;
  EXPECT_EQ(event->GetParam(0x01234567, &view), zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_TRUE(Has(zym::trace::kCall, "Unsupported param 0x1234567"));
}

TEST_F(EventTest, ForkAndFakeAreToldByTheirParameters) {
  process_cache::EventInfo info = MakeInfo();
  info.isFork = true;
  info.isFake = true;
  const auto event = MakeCreation(std::move(info));
  EXPECT_EQ(Read<std::uint32_t>(*event, 0x82001500), 0);
  EXPECT_EQ(Read<std::uint8_t>(*event, 0x0e000000), 1);
  EXPECT_TRUE(event->IsFake());
  EXPECT_FALSE(MakeCreation()->IsFake());
}

TEST_F(EventTest, TheIdIsTheSequenceNumber) {
  const auto event = MakeCreation();
  const std::uint64_t* id = nullptr;
  EXPECT_EQ(event->GetEventId(&id), zym::ZYM_OK);
  EXPECT_EQ(*id, 77U);
}

TEST_F(EventTest, PidAndCpidStayWhatTheyWereAtTheCreationOfTheEvent) {
  m_provider->then = [](process_cache::EventInfo& info) {
    info.info.pid = 1;
    info.info.creatorPid = 2;
  };
  for (const std::uint32_t type : {event_type::kCreateProcess, event_type::kExitProcess}) {
    const auto event = Make(type, MakeInfo());
    EXPECT_EQ(event->GetType(), type);
    EXPECT_EQ(event->GetPid(), 4001U);
    EXPECT_EQ(event->GetCpid(), 4002U);
    EXPECT_TRUE(event->Complete());
    EXPECT_EQ(event->GetPid(), 4001U);
    EXPECT_EQ(event->GetCpid(), 4002U);
  }
}

TEST_F(EventTest, TheSubjectIsTheCreatorOfAnImageAndTheProcessThatEnds) {
  const auto create = MakeCreation();
  EXPECT_EQ(create->GetSubject().pid, 4002U);
  EXPECT_EQ(create->GetSubject().uniquePid, 0x1111222233334002U);
  const auto exit = Make(event_type::kExitProcess, MakeInfo());
  EXPECT_EQ(exit->GetSubject().pid, 4001U);
  EXPECT_EQ(exit->GetSubject().uniquePid, 0x1111222233334001U);
}

TEST_F(EventTest, ItsTextNamesTheTypeTheSequenceAndTheProcess) {
  process_cache::EventInfo info = MakeInfo();
  const std::string process = DescribeProcess(info.info, m_host.categoryFilter.get());
  EXPECT_EQ(MakeCreation(info)->ToString(), *zym::Utf8ToUtf16("create_process, seq: 77, " + process));
  info.isFake = true;
  EXPECT_EQ(Make(event_type::kExitProcess, info)->ToString(),
            *zym::Utf8ToUtf16("fake exit_process, seq: 77, " + process));
  EXPECT_EQ(Make(event_type::kJournal, info)->ToString(),
            *zym::Utf8ToUtf16("fake 3660608892, seq: 77, " + process));
}

TEST_F(EventTest, ItsTextHoldsBackWhatTheFilterSaysIsSensitive) {
  m_host.categoryFilter->Allow(false);
  const zym::types::string16_t text = MakeCreation()->ToString();
  EXPECT_EQ(text.find(u"--now"), text.npos);
  EXPECT_NE(text.find(u"skipped by privacy policy"), text.npos);
}

TEST_F(EventTest, ItsTextSurvivesAnEnvironmentThatIsNotUtf8) {
  process_cache::EventInfo info = MakeInfo();
  info.info.environment.emplace_back("NAME=\xff\xf0\x9f\x90\x9f");
  EXPECT_NE(MakeCreation(std::move(info))->ToString().find(u"env: NAME=\uFFFD\U0001F41F"),
            zym::types::string16_t::npos);
}

TEST(EventNames, EachTypeButTheJournalsHasAText) {
  EXPECT_EQ(EventTypeText(0x7fc4443b), "create_process");
  EXPECT_EQ(EventTypeText(0x0ed23a39), "exit_process");
  EXPECT_EQ(EventTypeText(0x4889b764), "file_created");
  EXPECT_EQ(EventTypeText(0x59473d26), "file_changed");
  EXPECT_EQ(EventTypeText(0x0e21bfd7), "console_input");
  EXPECT_EQ(EventTypeText(0xda30757c), "3660608892");
}

// --- Completion. ---

TEST_F(EventTest, AnExitTellsTheCacheWhichMaySkipIt) {
  const auto event = Make(event_type::kExitProcess, MakeInfo());
  EXPECT_TRUE(event->Complete());
  ASSERT_EQ(m_provider->exits.size(), 1U);
  EXPECT_EQ(m_provider->exits[0].info.pid, 4001U);
  EXPECT_TRUE(m_provider->creations.empty());
  EXPECT_TRUE(m_host.scanStatistics->Paths().empty()) << "only new images are counted";

  m_provider->then = [](process_cache::EventInfo& info) { info.skip = true; };
  EXPECT_FALSE(Make(event_type::kExitProcess, MakeInfo())->Complete());
}

TEST_F(EventTest, ACreationTellsTheCacheWhichMaySkipIt) {
  EXPECT_TRUE(MakeCreation()->Complete());
  ASSERT_EQ(m_provider->creations.size(), 1U);
  EXPECT_FALSE(m_provider->creations[0].shouldUpdateExecInfo);
  m_provider->then = [](process_cache::EventInfo& info) { info.skip = true; };
  EXPECT_FALSE(MakeCreation()->Complete());
}

TEST_F(EventTest, AnEventThatIsSkippedFromTheBeginningReachesNobody) {
  process_cache::EventInfo info = MakeInfo();
  info.skip = true;
  EXPECT_FALSE(MakeCreation(info)->Complete());
  EXPECT_FALSE(Make(event_type::kExitProcess, info)->Complete());
}

TEST_F(EventTest, AnEventOfAnotherTypeIsForNobodyAndTellsNobody) {
  EXPECT_FALSE(Make(event_type::kFileCreated, MakeInfo())->Complete());
  EXPECT_TRUE(m_provider->creations.empty());
  EXPECT_TRUE(m_provider->exits.empty());
}

TEST_F(EventTest, WhatTheCacheRaisesIsTracedAndLosesTheEvent) {
  m_provider->then = [](process_cache::EventInfo&) { throw std::out_of_range("no such version"); };
  EXPECT_FALSE(MakeCreation()->Complete());
  EXPECT_FALSE(Make(event_type::kExitProcess, MakeInfo())->Complete());
  EXPECT_TRUE(Has(zym::trace::kFailure, "Complete: no such version"));
}

// --- Statistics. ---

TEST_F(EventTest, TheImageOfANewProcessIsCountedOnceAndTheEventKeepsItsPath) {
  const auto event = MakeCreation();
  EXPECT_TRUE(event->Complete());
  EXPECT_EQ(m_host.scanStatistics->Paths(), (std::vector<std::u16string>{u"/usr/bin/\u00e9tude"}));
  EXPECT_EQ(ReadText(*event, 0x0b000400), u"/usr/bin/\u00e9tude");
}

TEST_F(EventTest, AProcessWithoutAnImageOrOfTheKernelOrWithoutABackingFileIsNotCounted) {
  process_cache::EventInfo info = MakeInfo();
  info.info.imagePath.clear();
  EXPECT_EQ(TimesCounted(info), 0U);
  for (const std::uint32_t flags : {1U, 16U, 17U}) {
    info = MakeInfo();
    info.info.flags = flags;
    EXPECT_EQ(TimesCounted(info), 0U) << flags;
  }
}

TEST_F(EventTest, AChildOfThisProcessIsNotCounted) {
  process_cache::EventInfo info = MakeInfo();
  info.info.parentPid = static_cast<PidType>(::getpid());
  EXPECT_EQ(TimesCounted(info), 0U);
}

TEST_F(EventTest, AChildOfTheWatchdogIsNotCountedOnlyIfTheWatchdogStartedThisProcess) {
  process_cache::EventInfo info = MakeInfo();
  info.info.parentPid = static_cast<PidType>(::getppid());
  EXPECT_EQ(TimesCounted(info), 1U);
  m_context = {};
  m_host.startupData->data.startedByWatchdog = 1;
  EXPECT_EQ(TimesCounted(info), 0U);
  EXPECT_EQ(TimesCounted(MakeInfo()), 1U);
}

// A file with a link to it, in a directory that ends with the test.
class TemporaryWatchdog {
 public:
  TemporaryWatchdog() {
    char name[] = "/tmp/watchdog_test_XXXXXX";
    m_directory = std::filesystem::canonical(::mkdtemp(name));
    std::ofstream(File()).put('x');
    std::filesystem::create_symlink(File(), Link());
  }
  ~TemporaryWatchdog() { std::filesystem::remove_all(m_directory); }
  TemporaryWatchdog(const TemporaryWatchdog&) = delete;
  TemporaryWatchdog& operator=(const TemporaryWatchdog&) = delete;

  std::filesystem::path File() const { return m_directory / "wdserver-1.0"; }
  std::filesystem::path Link() const { return m_directory / "wdserver"; }

 private:
  std::filesystem::path m_directory;
};

TEST_F(EventTest, TheWatchdogItselfIsNotCountedByItsResolvedPath) {
  const TemporaryWatchdog watchdog;
  m_watchdogExecutable = watchdog.Link();
  process_cache::EventInfo info = MakeInfo();
  info.info.imagePath = watchdog.File().u16string();
  EXPECT_EQ(TimesCounted(info), 1U) << "nobody was started by a watchdog";
  m_context = {};
  m_host.startupData->data.startedByWatchdog = 1;
  EXPECT_EQ(TimesCounted(info), 0U);
  info.info.imagePath = watchdog.Link().u16string();
  EXPECT_EQ(TimesCounted(info), 1U);
}

TEST_F(EventTest, TheWatchdogsPathIsResolvedOnceAndAFailureIsTracedOnce) {
  m_host.startupData->data.startedByWatchdog = 1;
  EXPECT_EQ(TimesCounted(MakeInfo()), 1U);
  EXPECT_TRUE(Has(zym::trace::kFailure, "WatchdogPath: "));
  m_host.tracer->Clear();
  EXPECT_EQ(TimesCounted(MakeInfo()), 1U);
  EXPECT_FALSE(Has(zym::trace::kFailure, ""));
}

TEST(EventContext, TheWatchdogIsWhereItIsInstalled) {
  EXPECT_STREQ(kWatchdogExecutable, "/opt/quelmarin/vorn/libexec/wdserver");
}

TEST_F(EventTest, ACollectorThatFailsIsTracedAndHasNoFurtherEffect) {
  m_host.scanStatistics->FailWith(zym::ZYM_E_ACCESS_DENIED);
  EXPECT_TRUE(MakeCreation()->Complete());
  EXPECT_TRUE(
      Has(zym::trace::kFailure,
          "CollectStatistics: "
          "'(m_scanStatisticCollector->RegisterScannedProcessFilePath(std::move(imagePath)))=0x80000045"));
}

class RaisingCollector : public zym::object::Ifaces<IScanStatisticsCollector> {
 public:
  zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&&) override {
    throw std::out_of_range("no room");
  }
};

TEST_F(EventTest, ACollectorThatRaisesDoesNotLoseTheEvent) {
  m_host.locator->Add<IScanStatisticsCollector>(zym::CreateObject<RaisingCollector>());
  EXPECT_TRUE(MakeCreation()->Complete());
  EXPECT_TRUE(Has(zym::trace::kFailure, "CollectStatistics: no room"));
  m_host.locator->Add(m_host.scanStatistics);
}

// --- What the listener knows. ---

class ExecStringsTest : public EventTest {
 protected:
  ExecStringsTest() { m_listener->strings = Strings({"/bin/sh", "sh", "-c", "echo \xc3\xa9"}); }
  ~ExecStringsTest() override {
    m_listener = {};  // before the objects are counted
  }

  static zym::types::vector_t<zym::types::string_t> Strings(std::initializer_list<const char*> list) {
    return {list.begin(), list.end()};
  }
  static process_cache::EventInfo DeadInfo() {
    process_cache::EventInfo info = MakeInfo();
    info.info.state = kTerminated;
    info.info.imagePath.clear();
    info.info.commandLine.reset();
    return info;
  }
  zym::intrusive_ptr<Event> MakeDead(process_cache::EventInfo info = DeadInfo()) {
    return Make(event_type::kCreateProcess, std::move(info), m_listener);
  }

  zym::intrusive_ptr<FakeExecListener> m_listener = zym::CreateObject<FakeExecListener>();
};

TEST_F(ExecStringsTest, AnExecThatDiedBeforeItWasReadIsCompletedFromTheListener) {
  const auto event = MakeDead();
  EXPECT_TRUE(event->Complete());
  EXPECT_EQ(ReadText(*event, 0x0b000400), u"/bin/sh");
  EXPECT_EQ(ReadText(*event, 0x8b000700), u"sh -c echo \u00e9");
  ASSERT_EQ(m_listener->questions.size(), 1U);
  EXPECT_EQ(m_listener->questions[0].timeout, 20U);
  EXPECT_EQ(m_listener->questions[0].pid, 4001U);
  EXPECT_EQ(m_listener->questions[0].fd, 0xffffffff);
  ASSERT_EQ(m_provider->creations.size(), 1U);
  EXPECT_TRUE(m_provider->creations[0].shouldUpdateExecInfo);
  EXPECT_EQ(m_provider->creations[0].info.info.imagePath, u"/bin/sh") << "the cache learns it";
  EXPECT_TRUE(m_host.scanStatistics->Paths().empty()) << "counted before its path was known: not at all";
}

TEST_F(ExecStringsTest, TheListenerIsNotAskedOfAForkNorOfAProcessThatLivesNorOfAnEnd) {
  process_cache::EventInfo fork = DeadInfo();
  fork.isFork = true;
  EXPECT_TRUE(MakeDead(fork)->Complete());
  for (const std::uint32_t state : {kStarting, kCreated}) {
    process_cache::EventInfo alive = DeadInfo();
    alive.info.state = state;
    EXPECT_TRUE(MakeDead(alive)->Complete());
  }
  EXPECT_TRUE(Make(event_type::kExitProcess, DeadInfo(), m_listener)->Complete());
  EXPECT_TRUE(m_listener->questions.empty());
  for (const auto& creation : m_provider->creations) EXPECT_FALSE(creation.shouldUpdateExecInfo);
}

TEST_F(ExecStringsTest, AListenerWithoutStringsOrThatFailsOrRaisesLeavesTheEventAsItIs) {
  EXPECT_TRUE(
      Make(event_type::kCreateProcess, DeadInfo(), zym::CreateObject<PlainExecListener>())->Complete());
  m_listener->result = zym::ZYM_E_TIMEOUT;
  EXPECT_TRUE(MakeDead()->Complete());
  m_listener->result = zym::ZYM_OK;
  m_listener->strings.clear();
  EXPECT_TRUE(MakeDead()->Complete());
  m_listener->then = [] { throw std::out_of_range("no such pid"); };
  EXPECT_TRUE(MakeDead()->Complete());
  EXPECT_TRUE(Has(zym::trace::kFailure, "OnCreateProcess: no such pid"));
  EXPECT_EQ(m_provider->creations.size(), 4U);
  for (const auto& creation : m_provider->creations) EXPECT_FALSE(creation.shouldUpdateExecInfo);
}

TEST_F(ExecStringsTest, AProgramWithoutArgumentsHasAnEmptyCommandLine) {
  m_listener->strings = Strings({"/bin/true"});
  const auto event = MakeDead();
  EXPECT_TRUE(event->Complete());
  EXPECT_EQ(ReadText(*event, 0x8b000700), u"");
}

TEST_F(ExecStringsTest, APathThatIsNotUtf8IsTracedAndTheCommandLineIsTaken) {
  m_listener->strings = Strings({"/bin/\xff", "sh"});
  const auto event = MakeDead();
  EXPECT_TRUE(event->Complete());
  EXPECT_TRUE(Has(zym::trace::kFailure, "OnCreateProcess: Failed to convert image path: /bin/\xef\xbf\xbd"));
  EXPECT_EQ(ReadText(*event, 0x0b000400), u"");
  EXPECT_EQ(ReadText(*event, 0x8b000700), u"sh");
  EXPECT_TRUE(m_provider->creations[0].shouldUpdateExecInfo);
}

TEST_F(ExecStringsTest, ArgumentsThatAreNotUtf8AreTracedAndThePathIsTaken) {
  m_listener->strings = Strings({"/bin/sh", "sh", "\xff"});
  const auto event = MakeDead();
  EXPECT_TRUE(event->Complete());
  EXPECT_TRUE(Has(zym::trace::kFailure, "OnCreateProcess: Failed to convert command line: sh \xef\xbf\xbd"));
  EXPECT_EQ(ReadText(*event, 0x0b000400), u"/bin/sh");
  View view;
  EXPECT_EQ(event->GetParam(0x8b000700, &view), zym::ZYM_E_NOT_FOUND);
}

TEST_F(ExecStringsTest, ArgumentsAreTracedOnlyIfTheFilterLetsThem) {
  EXPECT_TRUE(MakeDead()->Complete());
  EXPECT_TRUE(m_host.tracer->Has("sh -c echo"));
  m_host.tracer->Clear();
  m_host.categoryFilter->Allow(false);
  m_listener->strings = Strings({"/bin/sh", "secret", "\xff"});
  EXPECT_TRUE(MakeDead()->Complete());
  EXPECT_TRUE(Has(zym::trace::kCall,
                  "OnCreateProcess: image path: /bin/sh, command line: skipped by privacy policy"));
  EXPECT_TRUE(Has(zym::trace::kFailure,
                  "OnCreateProcess: Failed to convert command line: skipped by privacy policy"));
  EXPECT_FALSE(m_host.tracer->Has("secret"));
}

}  // namespace
}  // namespace qor::process_manager
