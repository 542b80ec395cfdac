#include "process_manager/non_blocking/netlink_interceptor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "process_manager/interceptor.h"
#include "process_manager/non_blocking/netlink_fakes.h"
#include "process_manager/system_event.h"
#include "support/fake_services.h"
#include "support/proc_connector.h"
#include "zym/module_counter.h"

namespace {

using namespace qor::process_manager;
using namespace test_support;
using non_blocking::NetlinkInterceptor;
using Strings = std::vector<std::string>;
namespace event_type = system_interceptors::event_type;
namespace event_param = system_interceptors::event_param;

constexpr std::uint32_t kNetlink = 1;
constexpr std::uint32_t kKprobes = 2;
constexpr std::uint32_t kFullProcessInfo = 4;
constexpr std::uint32_t kConsoleInput = 8;

// The source over fakes, with no socket.
class NetlinkInterceptorTest : public testing::Test, protected NetlinkHarness {
 protected:
  zym::result_t Process(const ProcConnectorDatagram& datagram) {
    return m_interceptor->ProcessNetlink(datagram.data(), datagram.size());
  }

  RecordingEventInfoProvider::Report OnlyReport() const {
    const auto reports = m_cache->Reports();
    EXPECT_EQ(reports.size(), 1U);
    return reports.empty() ? RecordingEventInfoProvider::Report{} : reports[0];
  }
};

// --- construction ---

TEST_F(NetlinkInterceptorTest, EachRequiredServiceIsAskedForAtConstruction) {
  for (const zym::iid_t iid : {0x6ef3329bU, 0xc9b36ad4U, 0x79864d30U, 0x2b6ab0fbU}) {
    FakeHost host;
    host.locator->Add(m_parser);
    host.locator->Add(m_cache);
    const auto factory = zym::CreateObject<SystemEventsFactory>(host.locator.get());
    host.locator->FailWith(iid, zym::ZYM_E_ACCESS_DENIED);
    const std::int32_t before = zym::ModuleObjectCounter::Value();
    EXPECT_THROW(static_cast<void>(zym::CreateObject<NetlinkInterceptor>(
                     host.locator.get(), zym::CreateObject<FakeEventDispatcher>(), factory)),
                 zym::GetInterfaceException)
        << std::hex << iid;
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), before);
  }
}

TEST_F(NetlinkInterceptorTest, OptionalServicesAreNotAskedForAtConstruction) {
  EXPECT_EQ(m_host.locator->Asked().count(qor::IExecListenerFactory::kIid), 0U);
  EXPECT_EQ(m_host.locator->Asked().count(qor::IFeatureTechsAggregator::kIid), 0U);
}

TEST_F(NetlinkInterceptorTest, ConstructionStartsNothing) {
  EXPECT_TRUE(ThreadsNamed("vornPrcMonPoll").empty());
}

TEST_F(NetlinkInterceptorTest, TheTwoHandlersAreSetAndClearedExitFirst) {
  EXPECT_EQ(m_dispatcher->changes, (Strings{"set create", "set exit"}));
  m_dispatcher->changes.clear();
  m_interceptor.Reset();
  EXPECT_EQ(m_dispatcher->changes, (Strings{"clear exit", "clear create"}));
}

TEST_F(NetlinkInterceptorTest, TheVirtualOperationsFollowThoseOfTheObjectInOrder) {
  using Operation = zym::result_t (*)(void*);
  m_host.tracer->Clear();
  void* const object = m_interceptor.get();
  auto* const* const slots = *static_cast<Operation**>(object);
  EXPECT_EQ(slots[3](object), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has("StartImpl() "));
  EXPECT_FALSE(m_host.tracer->Has("StopImpl() "));
  EXPECT_EQ(slots[4](object), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has("StopImpl() "));
}

class CountingHandler
    : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
 public:
  void OnEvent(ISystemEvent* event, std::uint32_t filterId) override {
    seen.emplace_back(event->GetType(), filterId);
  }
  std::vector<std::pair<std::uint32_t, std::uint32_t>> seen;
};

TEST_F(NetlinkInterceptorTest, EventsOfTheDispatcherReachTheFiltersOfTheirType) {
  const auto handler = zym::CreateObject<CountingHandler>();
  for (const auto& [id, type] :
       {std::pair{11U, event_type::kCreateProcess}, {12U, event_type::kExitProcess}}) {
    non_blocking::Filter filter;
    filter.enabled = true;
    filter.handler = handler;
    filter.descriptor.type = type;
    filter.id = id;
    ASSERT_EQ(m_interceptor->RegisterFilter(std::move(filter)), zym::ZYM_OK);
  }
  m_parser->everyProcess.emplace();
  Process(ExecDatagram(100));
  const auto dispatched = m_dispatcher->Dispatched();
  ASSERT_EQ(dispatched.size(), 1U);
  ASSERT_EQ(dispatched[0].size(), 2U);
  m_dispatcher->exit(dispatched[0][0]);
  m_dispatcher->create(dispatched[0][1]);
  EXPECT_EQ(handler->seen, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{
                               {event_type::kExitProcess, 12U}, {event_type::kCreateProcess, 11U}}));
}

// --- datagrams ---

TEST_F(NetlinkInterceptorTest, AForkIsReadFromProcAndReportedUnderTheEventsParent) {
  m_parser->processes[200] = {.parentPid = 1, .imagePath = "/usr/bin/child"};
  EXPECT_EQ(Process(ForkDatagram(100, 200, 5)), zym::ZYM_OK);
  const auto report = OnlyReport();
  EXPECT_EQ(report.what, "fork");
  EXPECT_EQ(report.info.pid, 200U);
  EXPECT_EQ(report.info.parentPid, 100U) << "the parent that /proc shows may be its new one already";
  EXPECT_EQ(std::u16string_view(report.info.imagePath), u"/usr/bin/child");
  EXPECT_EQ(report.info.flags, 0U);
  EXPECT_FALSE(report.createWasSkipped);
  EXPECT_EQ(report.createTimestamp, 5U);
  EXPECT_EQ(m_parser->reads, 1U);
  const auto dispatched = m_dispatcher->Dispatched();
  ASSERT_EQ(dispatched.size(), 1U);
  ASSERT_EQ(dispatched[0].size(), 1U);
  EXPECT_EQ(dispatched[0][0]->GetType(), event_type::kCreateProcess);
  EXPECT_EQ(dispatched[0][0]->GetPid(), 200U);
}

TEST_F(NetlinkInterceptorTest, AForkedProcessThatIsGoneIsReportedWithWhatTheEventTells) {
  EXPECT_EQ(Process(ForkDatagram(100, 200, 5)), zym::ZYM_OK);
  const auto report = OnlyReport();
  EXPECT_EQ(report.info.pid, 200U);
  EXPECT_EQ(report.info.parentPid, 100U);
  EXPECT_EQ(report.info.flags, 16U);
  EXPECT_EQ(report.info.state, 3U);
  EXPECT_EQ(m_dispatcher->Dispatched().size(), 1U);
}

TEST_F(NetlinkInterceptorTest, AnExecGivesTheExitOfTheOldImageAndThenTheCreateOfTheNewOneTogether) {
  m_parser->processes[200] = {.imagePath = "/usr/bin/new"};
  EXPECT_EQ(Process(ExecDatagram(200, 7)), zym::ZYM_OK);
  const auto report = OnlyReport();
  EXPECT_EQ(report.what, "exec");
  EXPECT_FALSE(report.exitWasSkipped);
  EXPECT_FALSE(report.createWasSkipped);
  EXPECT_EQ(report.exitTimestamp, 7U);
  EXPECT_EQ(report.createTimestamp, 7U);
  const auto dispatched = m_dispatcher->Dispatched();
  ASSERT_EQ(dispatched.size(), 1U);
  ASSERT_EQ(dispatched[0].size(), 2U);
  EXPECT_EQ(dispatched[0][0]->GetType(), event_type::kExitProcess);
  EXPECT_EQ(dispatched[0][1]->GetType(), event_type::kCreateProcess);
  for (const auto& event : dispatched[0]) {
    zym::types::range_t<const std::uint8_t*> timestamp;
    ASSERT_EQ(event->GetParam(event_param::kTimestamp, &timestamp), zym::ZYM_OK);
    EXPECT_EQ(*timestamp.begin(), 7U);
  }
}

TEST_F(NetlinkInterceptorTest, AnExecOfAProcessThatIsGoneStillYieldsItsExitAndItsCreate) {
  EXPECT_EQ(Process(ExecDatagram(200, 7)), zym::ZYM_OK);
  const auto report = OnlyReport();
  EXPECT_EQ(report.info.pid, 200U);
  EXPECT_EQ(report.info.flags, 16U);
  EXPECT_EQ(report.info.state, 3U);
  const auto dispatched = m_dispatcher->Dispatched();
  ASSERT_EQ(dispatched.size(), 1U);
  EXPECT_EQ(dispatched[0].size(), 2U);
}

TEST_F(NetlinkInterceptorTest, TheCacheMaySayThatOneSideOfAnExecIsNoEvent) {
  m_cache->skipExit = true;
  Process(ExecDatagram(200));
  m_cache->skipExit = false;
  m_cache->skipCreate = true;
  Process(ExecDatagram(200));
  const auto dispatched = m_dispatcher->Dispatched();
  ASSERT_EQ(dispatched.size(), 2U);
  ASSERT_EQ(dispatched[0].size(), 1U);
  EXPECT_EQ(dispatched[0][0]->GetType(), event_type::kCreateProcess);
  ASSERT_EQ(dispatched[1].size(), 1U);
  EXPECT_EQ(dispatched[1][0]->GetType(), event_type::kExitProcess);
}

TEST_F(NetlinkInterceptorTest, WhatTheCacheMarksAsNoEventIsNotDispatched) {
  m_cache->skipExit = m_cache->skipCreate = true;
  Process(ForkDatagram(100, 200));
  Process(ExecDatagram(200));
  Process(ExitDatagram(200));
  EXPECT_EQ(m_cache->Reports().size(), 3U);
  for (const auto& events : m_dispatcher->Dispatched()) EXPECT_TRUE(events.empty());
}

TEST_F(NetlinkInterceptorTest, AnExitIsReportedWithoutALookAtProc) {
  EXPECT_EQ(Process(ExitDatagram(200, 9)), zym::ZYM_OK);
  const auto report = OnlyReport();
  EXPECT_EQ(report.what, "exit");
  EXPECT_EQ(report.info.pid, 200U);
  EXPECT_FALSE(report.exitWasSkipped);
  EXPECT_EQ(report.exitTimestamp, 9U);
  EXPECT_EQ(m_parser->reads, 0U);
  const auto dispatched = m_dispatcher->Dispatched();
  ASSERT_EQ(dispatched.size(), 1U);
  ASSERT_EQ(dispatched[0].size(), 1U);
  EXPECT_EQ(dispatched[0][0]->GetType(), event_type::kExitProcess);
}

TEST_F(NetlinkInterceptorTest, ACredentialChangeIsACacheUpdateAndNoEvent) {
  EXPECT_EQ(Process(MakeDatagram(0x4, {201, 200, 1000, 0})), zym::ZYM_OK);
  EXPECT_EQ(Process(MakeDatagram(0x40, {201, 200, 1001, 5})), zym::ZYM_OK);
  const auto reports = m_cache->Reports();
  ASSERT_EQ(reports.size(), 2U);
  EXPECT_EQ(reports[0].what, "uid 200 1000 0");
  EXPECT_EQ(reports[1].what, "gid 200 1001 5");
  EXPECT_EQ(m_parser->reads, 0U);
  EXPECT_TRUE(m_dispatcher->Dispatched().empty());
}

TEST_F(NetlinkInterceptorTest, AMessageOfTypeNoneIsNoCallOfTheCacheAndNoEvent) {
  EXPECT_EQ(Process(MakeDatagram(0x0, {0, 0, 0, 0})), zym::ZYM_OK);
  EXPECT_TRUE(m_cache->Reports().empty());
  EXPECT_TRUE(m_dispatcher->Dispatched().empty());
}

TEST_F(NetlinkInterceptorTest, ThreadsAndSessionsEndInTheParser) {
  EXPECT_EQ(Process(MakeDatagram(0x1, {100, 100, 101, 100})), zym::ZYM_OK);
  EXPECT_EQ(Process(MakeDatagram(0x80000000, {101, 100, 0, 0})), zym::ZYM_OK);
  EXPECT_EQ(Process(MakeDatagram(0x80, {100, 100, 0, 0})), zym::ZYM_OK);
  EXPECT_TRUE(m_cache->Reports().empty());
  EXPECT_TRUE(m_dispatcher->Dispatched().empty());
}

TEST_F(NetlinkInterceptorTest, ARejectedDatagramIsAnUnspecifiedError) {
  EXPECT_EQ(Process(MakeDatagram(0x200, {100, 100, 0, 0})), zym::ZYM_E_UNSPECIFIED);
  const ProcConnectorDatagram datagram = ExitDatagram(100);
  EXPECT_EQ(m_interceptor->ProcessNetlink(datagram.data(), 67), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_cache->Reports().empty());
}

TEST_F(NetlinkInterceptorTest, WhatTheCacheRaisesIsTracedAndLeavesTheNextEventAlone) {
  m_cache->onReport = [](const auto&) {
    throw zym::CheckFailedException("process_cache.cpp", 1) << "the cache is upset";
  };
  EXPECT_EQ(Process(ExitDatagram(200)), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(m_host.tracer->Has(300, "NetlinkInterceptor::ProcessNetlink: "));
  EXPECT_TRUE(m_host.tracer->Has(300, "the cache is upset"));
  EXPECT_TRUE(m_dispatcher->Dispatched().empty());
  m_cache->onReport = nullptr;
  EXPECT_EQ(Process(ExitDatagram(200)), zym::ZYM_OK);
  EXPECT_EQ(m_dispatcher->Dispatched().size(), 1U);
}

TEST_F(NetlinkInterceptorTest, OnlyWithFullInformationAnExecReadsCredentialsAndEnvironment) {
  m_parser->processes[200] = {.creds = {.uid = {1, 2, 3, 4}, .gid = {5, 6, 7, 8}, .groups = {}},
                              .environment = {"HOME=/root"}};
  Process(ExecDatagram(200));
  m_interceptor->Start(kFullProcessInfo);
  Process(ExecDatagram(200));
  Process(ForkDatagram(100, 200));
  m_interceptor->Stop(kFullProcessInfo);
  Process(ExecDatagram(200));
  const auto reports = m_cache->Reports();
  ASSERT_EQ(reports.size(), 4U);
  EXPECT_TRUE(reports[0].info.environment.empty());
  ASSERT_EQ(reports[1].info.environment.size(), 1U);
  EXPECT_EQ(std::string_view(reports[1].info.environment[0]), "HOME=/root");
  EXPECT_EQ(reports[1].info.effectiveUserId, 2U);
  EXPECT_EQ(reports[1].info.effectiveGroupId, 6U);
  EXPECT_TRUE(reports[2].info.environment.empty()) << "a fork shares its parent's";
  EXPECT_TRUE(reports[3].info.environment.empty());
}

TEST_F(NetlinkInterceptorTest, AFailedFullReadKeepsWhatCouldBeRead) {
  m_parser->processes[200] = {.imagePath = "/usr/bin/new", .environmentIsHidden = true};
  m_interceptor->Start(kFullProcessInfo);
  Process(ExecDatagram(200));
  const auto report = OnlyReport();
  EXPECT_EQ(report.info.pid, 200U);
  EXPECT_EQ(std::u16string_view(report.info.imagePath), u"/usr/bin/new");
  EXPECT_EQ(report.info.flags, 16U);
  EXPECT_EQ(report.info.state, 3U);
}

TEST_F(NetlinkInterceptorTest, TheCacheIsToldBeforeTheEventIsDispatched) {
  m_cache->onReport = [this](const auto&) { EXPECT_TRUE(m_dispatcher->Dispatched().empty()); };
  Process(ForkDatagram(100, 200));
  EXPECT_EQ(m_dispatcher->Dispatched().size(), 1U);
}

// --- types ---

TEST_F(NetlinkInterceptorTest, ATypeIsTracedByTheNamesOfItsBits) {
  OfferListener(zym::CreateObject<PlainExecListener>());
  const struct {
    std::uint32_t type;
    const char* text;
  } cases[] = {
      {0, "StartImpl() type: "},
      {kKprobes, "StartImpl() type: Kprobes"},
      {kFullProcessInfo, "StartImpl() type: FullProcessInfo"},
      {kConsoleInput, "StartImpl() type: ConsoleInput"},
      {kKprobes | kFullProcessInfo | kConsoleInput, "StartImpl() type: Kprobes|FullProcessInfo|ConsoleInput"},
  };
  for (const auto& [type, text] : cases) {
    m_host.tracer->Clear();
    EXPECT_EQ(m_interceptor->Start(type), zym::ZYM_OK);
    EXPECT_TRUE(m_host.tracer->Has(800, "NetlinkInterceptor::" + std::string(text))) << text;
  }
  m_host.tracer->Clear();
  EXPECT_EQ(m_interceptor->Stop(0xf), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(800, "StopImpl() type: Netlink|Kprobes|FullProcessInfo|ConsoleInput"));
}

TEST_F(NetlinkInterceptorTest, ConsoleInputAloneStartsNothing) {
  EXPECT_EQ(m_interceptor->Start(kConsoleInput), zym::ZYM_OK);
  EXPECT_TRUE(ThreadsNamed("vornPrcMonPoll").empty());
  EXPECT_EQ(m_listenerFactory->calls, 0);
  EXPECT_EQ(m_interceptor->Stop(kConsoleInput), zym::ZYM_OK);
}

TEST_F(NetlinkInterceptorTest, AStopWithNothingRunningSucceeds) {
  EXPECT_EQ(m_interceptor->Stop(kNetlink), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(800, "nonblocking interceptor is stopped already"));
  EXPECT_EQ(m_interceptor->Stop(kKprobes), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(800, "nonblocking kprobes interceptor is stopped already"));
}

// --- the exec listener ---

TEST_F(NetlinkInterceptorTest, KprobesNeedAListenerFactory) {
  m_host.locator->FailWith(qor::IExecListenerFactory::kIid, zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_interceptor->Start(kKprobes), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(m_host.tracer->Has(300, "Could not get qor::IExecListenerFactory"));
  EXPECT_TRUE(m_host.tracer->Has(
      300, "(StartKprobes()),(ZYM_SUCCEEDED(_result)) failed: result = 0x8000004c (Not found)"));
}

TEST_F(NetlinkInterceptorTest, AFactoryWithoutAListenerIsDoneWithout) {
  m_host.locator->Add(m_listenerFactory);
  EXPECT_EQ(m_interceptor->Start(kKprobes), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(500, "IExecListener is not available, proceed without"));
  EXPECT_EQ(m_interceptor->Stop(kKprobes), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(800, "nonblocking kprobes interceptor is stopped already"));
}

TEST_F(NetlinkInterceptorTest, ASecondStartOfKprobesKeepsTheListener) {
  OfferListener(zym::CreateObject<ControllableExecListener>());
  EXPECT_EQ(m_interceptor->Start(kKprobes), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->Start(kKprobes), zym::ZYM_OK);
  EXPECT_EQ(m_listenerFactory->calls, 1);
  EXPECT_TRUE(m_host.tracer->Has(800, "kprobes nonblocking interceptor is running already"));
}

TEST_F(NetlinkInterceptorTest, AStopLetsTheListenerGoWithCapturingOff) {
  const auto listener = zym::CreateObject<ControllableExecListener>();
  OfferListener(listener);
  m_interceptor->Start(kKprobes);
  EXPECT_EQ(listener->AddRef(), 4U) << "the test, the factory, the source";
  listener->Release();
  EXPECT_EQ(m_interceptor->Stop(kKprobes), zym::ZYM_OK);
  EXPECT_EQ(listener->AddRef(), 3U);
  listener->Release();
  EXPECT_EQ(listener->values, (std::vector<std::uint32_t>{0}));
}

TEST_F(NetlinkInterceptorTest, EventsKeepTheListenerOfTheirTime) {
  const auto listener = zym::CreateObject<ControllableExecListener>();
  OfferListener(listener);
  m_interceptor->Start(kKprobes);
  Process(ExecDatagram(200));
  m_interceptor->Stop(kKprobes);
  EXPECT_EQ(listener->AddRef(), 5U) << "the test, the factory, and both events";
  listener->Release();
  m_dispatcher->Clear();
  Process(ExecDatagram(200));
  EXPECT_EQ(listener->AddRef(), 3U);
  listener->Release();
}

TEST_F(NetlinkInterceptorTest, CapturingIsTurnedOnWithTheStartupRecordsThirdValue) {
  m_host.startupData->data.environCapturing = 77;
  const auto* const words = reinterpret_cast<const std::uint32_t*>(m_host.startupData->GetStartupData());
  EXPECT_EQ(words[2], 77U);
  const auto listener = zym::CreateObject<ControllableExecListener>();
  OfferListener(listener);
  m_interceptor->Start(kKprobes);
  EXPECT_TRUE(listener->values.empty()) << "not without full information";
  m_interceptor->Start(kFullProcessInfo);
  EXPECT_EQ(listener->values, (std::vector<std::uint32_t>{77}));
  m_interceptor->Stop(kFullProcessInfo);
  EXPECT_EQ(listener->values, (std::vector<std::uint32_t>{77, 0}));
}

// The bit for full information is handled before there is a listener; the start of kprobes makes up for it.
TEST_F(NetlinkInterceptorTest, BothBitsAtOnceTurnCapturingOn) {
  m_host.startupData->data.environCapturing = 77;
  const auto listener = zym::CreateObject<ControllableExecListener>();
  OfferListener(listener);
  EXPECT_EQ(m_interceptor->Start(kKprobes | kFullProcessInfo), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(800, "Dynamic ExecListener configuration is not supported"));
  EXPECT_EQ(listener->values, (std::vector<std::uint32_t>{77}));
}

TEST_F(NetlinkInterceptorTest, AListenerThatCantBeConfiguredIsLeftAsItIs) {
  OfferListener(zym::CreateObject<PlainExecListener>());
  EXPECT_EQ(m_interceptor->Start(kKprobes), zym::ZYM_OK);
  m_host.tracer->Clear();
  EXPECT_EQ(m_interceptor->Start(kFullProcessInfo), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(800, "Dynamic ExecListener configuration is not supported"));
  EXPECT_FALSE(m_host.tracer->Has("Cannot enable environ capturing"));
}

TEST_F(NetlinkInterceptorTest, WithoutStartupDataCapturingStaysOffAndTheSourceStarts) {
  OfferListener(zym::CreateObject<ControllableExecListener>());
  m_interceptor->Start(kKprobes);
  m_host.locator->FailWith(qor::IStartupDataProvider::kIid, zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_interceptor->Start(kFullProcessInfo), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(300, "Cannot get qor::IStartupDataProvider interface"));
  EXPECT_TRUE(m_host.tracer->Has(
      300,
      "StartImpl: '(SetEnvironCapturing(true))=0x8000004c (Not found)' Cannot enable environ capturing"));
}

TEST_F(NetlinkInterceptorTest, ButTheStartOfKprobesFailsThen) {
  OfferListener(zym::CreateObject<ControllableExecListener>());
  m_interceptor->Start(kFullProcessInfo);
  m_host.locator->FailWith(qor::IStartupDataProvider::kIid, zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_interceptor->Start(kKprobes), zym::ZYM_E_NOT_FOUND);
}

TEST_F(NetlinkInterceptorTest, AListenerThatRefusesToStopCapturingIsLetGoAllTheSame) {
  const auto listener = zym::CreateObject<ControllableExecListener>();
  OfferListener(listener);
  m_interceptor->Start(kKprobes);
  listener->result = zym::ZYM_E_ACCESS_DENIED;
  EXPECT_EQ(m_interceptor->Stop(kKprobes | kFullProcessInfo), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has(300,
                                 "StopImpl: '(SetEnvironCapturing(false))=0x80000045 (Access denied)' Cannot "
                                 "disable environ capturing"));
  EXPECT_TRUE(m_host.tracer->Has(300,
                                 "StopKprobes: '(SetEnvironCapturing(false))=0x80000045 (Access denied)' "
                                 "Cannot disable environ capturing"));
  EXPECT_EQ(listener->AddRef(), 3U);
  listener->Release();
}

// --- the mask ---

TEST_F(NetlinkInterceptorTest, AStartByTheTableRestoresWhatTheHostAskedFor) {
  OfferListener(zym::CreateObject<ControllableExecListener>());
  m_interceptor->Start(kKprobes);
  EXPECT_EQ(m_interceptor->Stop(), zym::ZYM_OK);
  m_host.tracer->Clear();
  EXPECT_EQ(m_interceptor->Start(), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Has("StartImpl() type: Kprobes"));
  EXPECT_EQ(m_listenerFactory->calls, 2);
}

TEST_F(NetlinkInterceptorTest, AStopOfATypeTakesItFromWhatIsRestored) {
  OfferListener(zym::CreateObject<ControllableExecListener>());
  m_interceptor->Start(kKprobes | kConsoleInput);
  m_interceptor->Stop(kKprobes);
  m_host.tracer->Clear();
  m_interceptor->Start();
  EXPECT_TRUE(m_host.tracer->Has("StartImpl() type: ConsoleInput"));
  EXPECT_EQ(m_listenerFactory->calls, 1);
}

TEST_F(NetlinkInterceptorTest, WithNothingAskedForAStartByTheTableDoesNothing) {
  EXPECT_EQ(m_interceptor->Start(), zym::ZYM_OK);
  EXPECT_TRUE(ThreadsNamed("vornPrcMonPoll").empty());
  EXPECT_TRUE(m_aggregator->calls.empty());
}

// What was asked for stays asked for when it can't be had: the table's next start tries again.
TEST_F(NetlinkInterceptorTest, AFailedStartIsRemembered) {
  m_host.locator->FailWith(qor::IExecListenerFactory::kIid, zym::ZYM_E_NOT_FOUND);
  m_interceptor->Start(kKprobes);
  OfferListener(zym::CreateObject<ControllableExecListener>());
  EXPECT_EQ(m_interceptor->Start(), zym::ZYM_OK);
  EXPECT_EQ(m_listenerFactory->calls, 1);
}

TEST_F(NetlinkInterceptorTest, ItsEndStopsEveryTypeAndLetsTheListenerGo) {
  const auto listener = zym::CreateObject<ControllableExecListener>();
  OfferListener(listener);
  m_interceptor->Start(kKprobes | kFullProcessInfo);
  listener->values.clear();
  m_host.tracer->Clear();
  m_interceptor.Reset();
  EXPECT_TRUE(m_host.tracer->Has(
      800, "NetlinkInterceptor::StopImpl() type: Netlink|Kprobes|FullProcessInfo|ConsoleInput"));
  EXPECT_EQ(listener->values, (std::vector<std::uint32_t>{0, 0})) << "by the one bit and by the other";
  EXPECT_EQ(listener->AddRef(), 3U);
  listener->Release();
}

TEST(NetlinkInterceptor, LeavesNothingBehind) {
  const std::int32_t before = zym::ModuleObjectCounter::Value();
  {
    FakeHost host;
    host.locator->Add(zym::CreateObject<FakeProcfsParser>());
    host.locator->Add(zym::CreateObject<RecordingEventInfoProvider>());
    const auto interceptor =
        zym::CreateObject<NetlinkInterceptor>(host.locator.get(), zym::CreateObject<FakeEventDispatcher>(),
                                              zym::CreateObject<SystemEventsFactory>(host.locator.get()));
    const auto datagram = ExecDatagram(200);
    interceptor->ProcessNetlink(datagram.data(), datagram.size());
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), before);
}

}  // namespace
