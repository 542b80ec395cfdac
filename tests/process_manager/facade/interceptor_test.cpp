#include "process_manager/facade/interceptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "process_manager/interception/interceptor_settings_subscription.h"
#include "process_manager/non_blocking/netlink_fakes.h"
#include "support/fake_procfs_parser.h"
#include "support/fake_services.h"
#include "support/rights.h"
#include "support/threads.h"
#include "zym/module_counter.h"

namespace {

using namespace qor::process_manager;
using namespace test_support;
namespace event_type = system_interceptors::event_type;
namespace facade = system_interceptors::interceptor_facade;

constexpr std::uint32_t kNetlink = 1;
constexpr std::uint32_t kKprobes = 2;
constexpr const char* kPollThread = "vornPrcMonPoll";

class NonBlockingHandler
    : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
 public:
  void OnEvent(ISystemEvent*, std::uint32_t) override {}
};

class BlockingHandler
    : public zym::object::Ifaces<system_interceptors::event_processing::IBlockingEventHandler> {
 public:
  void OnEvent(ISystemEvent*, std::uint32_t, system_interceptors::event_processing::IEventControl*) override {
    ADD_FAILURE() << "there is no blocking source";
  }
};

class InterceptorTest : public testing::Test {
 protected:
  InterceptorTest() {
    m_host.locator->Add(zym::CreateObject<FakeProcfsParser>());
    m_host.locator->Add(zym::CreateObject<RecordingEventInfoProvider>());
    m_host.locator->Add(zym::CreateObject<FakeFeatureTechsAggregator>());
    m_host.locator->Add(
        zym::CreateObject<InterceptorSettingsSubscription>(m_host.tracer, InterceptorSettings()),
        IInterceptorSettingsSubscription::kIid);
    m_interceptor = zym::CreateObject<Interceptor>(m_host.locator.get());
    m_host.tracer->Clear();
  }

  zym::result_t RegisterNonBlocking(std::uint32_t type, std::uint32_t* id, bool enabled = true) {
    return m_interceptor->RegisterNonBlockingFilterAttachHandler({.type = type}, enabled, 0, m_handler.get(),
                                                                 id);
  }
  std::uint32_t Registered(std::uint32_t type, bool enabled = true) {
    std::uint32_t id = 0xffffffff;
    EXPECT_EQ(RegisterNonBlocking(type, &id, enabled), zym::ZYM_OK);
    return id;
  }
  static facade::FilterIds Ids(std::uint32_t& id) { return {&id, &id + 1}; }

  // 1: enabled, 0: disabled, -1: no such filter.
  int Status(std::uint32_t id) {
    bool enabled = false;
    const zym::result_t result = m_interceptor->GetFilterStatus(id, &enabled);
    EXPECT_TRUE(result == zym::ZYM_OK || result == zym::ZYM_E_NOT_FOUND);
    return result == zym::ZYM_OK ? static_cast<int>(enabled) : -1;
  }
  // The netlink source fails to start from here on, whenever its table wants it to.
  void MakeStartsFail() {
    m_host.locator->FailWith(qor::IExecListenerFactory::kIid, zym::ZYM_E_NOT_FOUND);
    EXPECT_EQ(m_interceptor->EnableNonBlockingInterceptor(kKprobes), zym::ZYM_E_NOT_FOUND);
    m_host.tracer->Clear();
  }
  void ExpectFailed(const std::string& expression, const std::string& code) const {
    EXPECT_TRUE(
        m_host.tracer->Has(300, "(" + expression + "),(ZYM_SUCCEEDED(_result)) failed: result = " + code))
        << expression;
  }

  FakeHost m_host;
  zym::intrusive_ptr<NonBlockingHandler> m_handler = zym::CreateObject<NonBlockingHandler>();
  zym::intrusive_ptr<Interceptor> m_interceptor;
};

// --- registration ---

TEST_F(InterceptorTest, IdsFollowEachOtherAndARefusedRegistrationLeavesAGap) {
  const std::uint32_t first = Registered(event_type::kCreateProcess);
  const std::uint32_t second = Registered(event_type::kExitProcess);
  EXPECT_EQ(second, first + 1);
  std::uint32_t refused = 0;
  EXPECT_EQ(RegisterNonBlocking(0x12345678, &refused), zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_EQ(refused, first + 2) << "written although it belongs to no table";
  std::uint32_t blocking = 0;
  m_interceptor->RegisterBlockingFilterAttachHandler({.type = event_type::kExitProcess}, true, 0, 0, nullptr,
                                                     &blocking);
  EXPECT_EQ(blocking, first + 3);
  std::uint32_t inert = 0;
  EXPECT_EQ(m_interceptor->RegisterFilter({.type = event_type::kCreateProcess}, true, 0, &inert),
            zym::ZYM_OK);
  EXPECT_EQ(inert, first + 4);
}

TEST_F(InterceptorTest, IdsAreNotReusedByAnotherFacade) {
  const std::uint32_t first = Registered(event_type::kCreateProcess);
  m_interceptor->DeleteFilters({});
  m_interceptor.Reset();
  m_interceptor = zym::CreateObject<Interceptor>(m_host.locator.get());
  EXPECT_EQ(Registered(event_type::kCreateProcess), first + 1);
}

TEST_F(InterceptorTest, ABlockingFilterForTheEndOfAProcessIsRefusedWithItsIdWritten) {
  const auto handler = zym::CreateObject<BlockingHandler>();
  std::uint32_t id = 0xffffffff;
  EXPECT_EQ(m_interceptor->RegisterBlockingFilterAttachHandler({.type = event_type::kExitProcess}, true, 3,
                                                               1000, handler.get(), &id),
            zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_EQ(static_cast<std::uint32_t>(zym::ZYM_E_NOT_SUPPORTED), 0x80000042U);
  EXPECT_NE(id, 0xffffffffU);
  EXPECT_TRUE(m_host.tracer->Has(500, "Filter is not supported: exit_process"));
  EXPECT_TRUE(m_host.tracer->Has(800,
                                 "RegisterBlockingFilterAttachHandler() true, h: true, func: exit_process, "
                                 "flags: 3, timeout: 1000, id: " +
                                     std::to_string(id)));
  EXPECT_EQ(handler->AddRef(), 2U) << "nobody keeps the handler";
  handler->Release();
}

TEST_F(InterceptorTest, ARegistrationWithoutAPlaceForTheIdIsInvalid) {
  EXPECT_EQ(m_interceptor->RegisterFilter({.type = event_type::kCreateProcess}, true, 0, nullptr),
            zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_interceptor->RegisterNonBlockingFilterAttachHandler({.type = event_type::kCreateProcess}, true,
                                                                  0, nullptr, nullptr),
            zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_interceptor->RegisterBlockingFilterAttachHandler({.type = event_type::kCreateProcess}, true, 0,
                                                               0, nullptr, nullptr),
            zym::ZYM_E_INVALID_ARGUMENT);
}

TEST_F(InterceptorTest, ThisBuildHasNoBlockingSource) {
  std::uint32_t id = 0;
  EXPECT_EQ(m_interceptor->RegisterBlockingFilterAttachHandler({.type = event_type::kCreateProcess}, true, 0,
                                                               0, nullptr, &id),
            zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_TRUE(m_host.tracer->Has(500, "Filter is not supported: create_process"));
}

TEST_F(InterceptorTest, TypesWithoutASourceAreRefusedByTheirText) {
  const struct {
    std::uint32_t type;
    const char* text;
  } cases[] = {
      {event_type::kFileChanged, "file_changed"},
      {event_type::kFileCreated, "file_created"},
      {event_type::kConsoleInput, "console_input"},
      {event_type::kJournal, "3660608892"},  // the journal's type has no text
      {7, "7"},
  };
  for (const auto& [type, text] : cases) {
    m_host.tracer->Clear();
    std::uint32_t id = 0xffffffff;
    EXPECT_EQ(RegisterNonBlocking(type, &id), zym::ZYM_E_NOT_SUPPORTED) << text;
    EXPECT_NE(id, 0xffffffffU);
    EXPECT_TRUE(m_host.tracer->Has(500, std::string("Filter is not supported: ") + text)) << text;
    EXPECT_EQ(Status(id), -1) << "it belongs to no table";
    EXPECT_EQ(m_interceptor->DeleteFilters(Ids(id)), zym::ZYM_OK) << "deleting it does nothing";
  }
}

TEST_F(InterceptorTest, ANonBlockingRegistrationIsTraced) {
  std::uint32_t id = 0;
  m_interceptor->RegisterNonBlockingFilterAttachHandler({.type = event_type::kExitProcess}, false, 5,
                                                        m_handler.get(), &id);
  EXPECT_TRUE(m_host.tracer->Has(800,
                                 "RegisterNonBlockingFilterAttachHandler() false, h: true, func: "
                                 "exit_process, flags: 5, id: " +
                                     std::to_string(id)));
  m_interceptor->RegisterFilter({.type = event_type::kCreateProcess}, true, 6, &id);
  EXPECT_TRUE(m_host.tracer->Has(
      800, "RegisterFilter() true, h: false, func: create_process, flags: 6, id: " + std::to_string(id)));
}

TEST_F(InterceptorTest, AHandlerIsKeptUntilItsFilterIsDeleted) {
  std::uint32_t id = Registered(event_type::kCreateProcess);
  EXPECT_EQ(m_handler->AddRef(), 3U);
  m_handler->Release();
  EXPECT_EQ(m_interceptor->DeleteFilters(Ids(id)), zym::ZYM_OK);
  EXPECT_EQ(m_handler->AddRef(), 2U);
  m_handler->Release();
}

TEST_F(InterceptorTest, AFailedStartOfTheSourceIsTheResultOfTheRegistrationWhichStays) {
  MakeStartsFail();
  std::uint32_t id = 0;
  EXPECT_EQ(RegisterNonBlocking(event_type::kCreateProcess, &id), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(Status(id), 1);
}

// --- filters ---

TEST_F(InterceptorTest, TheStatusOfAFilterFollowsItsChanges) {
  std::uint32_t id = Registered(event_type::kCreateProcess, false);
  std::uint32_t other = Registered(event_type::kExitProcess);
  EXPECT_EQ(Status(id), 0);
  EXPECT_EQ(m_interceptor->EnableFilters(Ids(id)), zym::ZYM_OK);
  EXPECT_EQ(Status(id), 1);
  EXPECT_EQ(m_interceptor->DisableFilters(Ids(id)), zym::ZYM_OK);
  EXPECT_EQ(Status(id), 0);
  EXPECT_EQ(m_interceptor->EnableDisableFilters(Ids(id), Ids(other)), zym::ZYM_OK);
  EXPECT_EQ(Status(id), 1);
  EXPECT_EQ(Status(other), 0);
}

TEST_F(InterceptorTest, ADeletedFilterIsNotFound) {
  std::uint32_t id = Registered(event_type::kCreateProcess);
  EXPECT_EQ(m_interceptor->DeleteFilters(Ids(id)), zym::ZYM_OK);
  bool enabled = true;
  EXPECT_EQ(m_interceptor->GetFilterStatus(id, &enabled), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(static_cast<std::uint32_t>(zym::ZYM_E_NOT_FOUND), 0x8000004cU);
  EXPECT_TRUE(enabled) << "untouched";
}

TEST_F(InterceptorTest, IdsThatNobodyHoldsAreNoError) {
  std::uint32_t unknown = 0xfffffff0;
  EXPECT_EQ(m_interceptor->EnableFilters(Ids(unknown)), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->DisableFilters(Ids(unknown)), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->DeleteFilters(Ids(unknown)), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->EnableDisableFilters(Ids(unknown), Ids(unknown)), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->AttachHandler(unknown, m_handler.get()), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->DetachHandler(unknown), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->DeleteFilters({}), zym::ZYM_OK) << "an empty list";
}

TEST_F(InterceptorTest, AttachingToABlockingFiltersIdChangesNothing) {
  const auto handler = zym::CreateObject<BlockingHandler>();
  std::uint32_t id = 0;
  m_interceptor->RegisterBlockingFilterAttachHandler({.type = event_type::kCreateProcess}, true, 0, 0,
                                                     handler.get(), &id);
  EXPECT_EQ(m_interceptor->AttachHandler(id, m_handler.get()), zym::ZYM_OK);
  EXPECT_EQ(m_handler->AddRef(), 2U);
  m_handler->Release();
  EXPECT_EQ(m_interceptor->DetachHandler(id), zym::ZYM_OK);
}

TEST_F(InterceptorTest, AFilterWithoutAHandlerDoesntStartTheSource) {
  SKIP_IF(MissingProcConnector());
  ASSERT_EQ(m_interceptor->EnableNonBlockingInterceptor(kNetlink), zym::ZYM_OK);
  ASSERT_EQ(m_interceptor->DeleteFilters({}), zym::ZYM_OK) << "a table without an active filter stops";
  ASSERT_TRUE(ThreadsNamed(kPollThread).empty());

  std::uint32_t id = 0;
  EXPECT_EQ(m_interceptor->RegisterFilter({.type = event_type::kCreateProcess}, false, 0, &id), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->EnableFilters(Ids(id)), zym::ZYM_OK);
  EXPECT_TRUE(ThreadsNamed(kPollThread).empty());

  EXPECT_EQ(m_interceptor->AttachHandler(id, m_handler.get()), zym::ZYM_OK);
  EXPECT_TRUE(Eventually([] { return ThreadsNamed(kPollThread).size() == 1; }));
  EXPECT_EQ(m_interceptor->DetachHandler(id), zym::ZYM_OK);
  EXPECT_TRUE(ThreadsNamed(kPollThread).empty());
}

TEST_F(InterceptorTest, EachOperationOnFiltersTracesAndReturnsTheFailureOfItsTable) {
  std::uint32_t id = Registered(event_type::kCreateProcess);
  MakeStartsFail();
  const std::string code = "0x8000004c (Not found)";
  EXPECT_EQ(m_interceptor->EnableFilters(Ids(id)), zym::ZYM_E_NOT_FOUND);
  ExpectFailed("m_nonBlockingInterceptor->EnableFilters(filterIds)", code);
  EXPECT_EQ(m_interceptor->EnableDisableFilters(Ids(id), {}), zym::ZYM_E_NOT_FOUND);
  ExpectFailed("m_nonBlockingInterceptor->EnableDisableFilters(filtersToEnable, filtersToDisable)", code);
  EXPECT_EQ(m_interceptor->AttachHandler(id, m_handler.get()), zym::ZYM_E_NOT_FOUND);
  ExpectFailed("m_nonBlockingInterceptor->AttachHandler(filterId, handler)", code);
}

TEST_F(InterceptorTest, EachOperationThatStopsTheSourceTracesAndReturnsItsFailure) {
  SKIP_IF(MissingProcConnector());
  std::uint32_t id = Registered(event_type::kCreateProcess);
  const auto before = OpenDescriptors();
  ASSERT_EQ(m_interceptor->EnableNonBlockingInterceptor(kNetlink), zym::ZYM_OK);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  for (const auto& [fd, name] : OpenDescriptors())
    if (!before.contains(fd) && name.starts_with("socket:")) {
      ASSERT_EQ(::dup2(ends[0], fd), fd);
    }
  const std::string code = "0x8000004b (Unspecified error)";
  EXPECT_EQ(m_interceptor->DisableFilters(Ids(id)), zym::ZYM_E_UNSPECIFIED);
  ExpectFailed("m_nonBlockingInterceptor->DisableFilters(filterIds)", code);
  EXPECT_EQ(m_interceptor->DetachHandler(id), zym::ZYM_E_UNSPECIFIED);
  ExpectFailed("m_nonBlockingInterceptor->DetachHandler(filterId)", code);
  EXPECT_EQ(m_interceptor->DeleteFilters(Ids(id)), zym::ZYM_E_UNSPECIFIED);
  ExpectFailed("m_nonBlockingInterceptor->DeleteFilters(filterIds)", code);
  EXPECT_EQ(Status(id), -1) << "the filters stay as changed";
  EXPECT_EQ(m_interceptor->DisableNonBlockingInterceptor(kNetlink), zym::ZYM_OK) << "its result is ignored";
  m_interceptor.Reset();
  EXPECT_TRUE(ThreadsNamed(kPollThread).empty());
  ::close(ends[0]);
  ::close(ends[1]);
}

// A handler that is inside its call until the test lets it go.
class HeldHandler
    : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
 public:
  void OnEvent(ISystemEvent*, std::uint32_t) override {
    entered.Open();
    release.Wait();
  }
  Gate entered;
  Gate release;
};

// One operation at a time, also while it waits: here for a handler, which must not come back for that reason.
TEST_F(InterceptorTest, AnOperationWaitsForAnotherThatWaitsForARunningHandler) {
  SKIP_IF(MissingProcConnector());
  const auto held = zym::CreateObject<HeldHandler>();
  std::uint32_t id = 0;
  ASSERT_EQ(m_interceptor->RegisterNonBlockingFilterAttachHandler({.type = event_type::kExitProcess}, true, 0,
                                                                  held.get(), &id),
            zym::ZYM_OK);
  std::uint32_t other = Registered(event_type::kCreateProcess, false);
  ASSERT_EQ(m_interceptor->EnableNonBlockingInterceptor(kNetlink), zym::ZYM_OK);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  held->entered.Wait();
  Call remove([&] { EXPECT_EQ(m_interceptor->DeleteFilters(Ids(id)), zym::ZYM_OK); });
  EXPECT_TRUE(remove.IsBlocked());
  Call status([&] { EXPECT_EQ(Status(other), 0); });
  EXPECT_TRUE(status.IsBlocked());
  held->release.Open();
  remove.Join();
  status.Join();
  EXPECT_EQ(Status(id), -1);
}

// --- sources ---

TEST_F(InterceptorTest, AFailedStartOfTheNetlinkSourceIsTracedAndReturned) {
  m_host.locator->FailWith(qor::IExecListenerFactory::kIid, zym::ZYM_E_ACCESS_DENIED);
  EXPECT_EQ(m_interceptor->EnableNonBlockingInterceptor(kKprobes), zym::ZYM_E_ACCESS_DENIED);
  ExpectFailed("m_nonBlockingInterceptor->Start(type)", "0x80000045 (Access denied)");
}

TEST_F(InterceptorTest, WhatRunsAlreadyAndWhatIsStoppedAlreadySucceeds) {
  SKIP_IF(MissingProcConnector());
  EXPECT_EQ(m_interceptor->DisableNonBlockingInterceptor(kNetlink), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->EnableNonBlockingInterceptor(kNetlink), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->EnableNonBlockingInterceptor(kNetlink), zym::ZYM_OK);
  EXPECT_EQ(m_interceptor->DisableNonBlockingInterceptor(kNetlink), zym::ZYM_OK);
}

TEST_F(InterceptorTest, SourcesThatThisBuildLacksAreNotSupported) {
  EXPECT_EQ(m_interceptor->EnableBlockingInterceptor(), zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_EQ(m_interceptor->DisableBlockingInterceptor(), zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_EQ(m_interceptor->EnableJournalInterceptor(), zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_EQ(m_interceptor->DisableJournalInterceptor(), zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_EQ(m_interceptor->EnableConsoleInputInterceptor(), zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_EQ(m_interceptor->DisableConsoleInputInterceptor(), zym::ZYM_E_NOT_SUPPORTED);
}

TEST_F(InterceptorTest, TheOfflineLogIsNotImplemented) {
  EXPECT_EQ(m_interceptor->GetOfflineLog(), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_EQ(static_cast<std::uint32_t>(zym::ZYM_E_NOT_IMPLEMENTED), 0x80000043U);
  EXPECT_TRUE(m_host.tracer->Has(500, "GetOfflineLog: GetOfflineLog is not implemented yet"));
}

TEST_F(InterceptorTest, TheReservedOperationDoesNothing) {
  EXPECT_EQ(m_interceptor->ReservedOperation(), zym::ZYM_OK);
  EXPECT_TRUE(m_host.tracer->Records().empty());
}

// --- the object ---

TEST_F(InterceptorTest, ThreeInterfacesShareOnePointerAndTheFourthHasItsOwn) {
  void* const primary = static_cast<facade::IInterceptor2*>(m_interceptor.get());
  for (const zym::iid_t iid : {0x00000000U, 0xde7726f2U, 0x49b85a1bU}) {
    void* found = nullptr;
    ASSERT_EQ(m_interceptor->QueryInterface(iid, &found), zym::ZYM_OK) << iid;
    EXPECT_EQ(found, primary) << iid;
    m_interceptor->Release();
  }
  void* control = nullptr;
  ASSERT_EQ(m_interceptor->QueryInterface(0xdae40c14, &control), zym::ZYM_OK);
  EXPECT_EQ(control, static_cast<IQorInterceptor*>(m_interceptor.get()));
  EXPECT_NE(control, primary);
  void* back = nullptr;
  ASSERT_EQ(static_cast<IQorInterceptor*>(control)->QueryInterface(0, &back), zym::ZYM_OK);
  EXPECT_EQ(back, primary);
  m_interceptor->Release();
  m_interceptor->Release();
  void* untouched = this;
  EXPECT_EQ(m_interceptor->QueryInterface(0x12345678, &untouched), zym::ZYM_E_NO_INTERFACE);
  EXPECT_EQ(untouched, this) << "an internal object leaves it";
}

TEST_F(InterceptorTest, WithoutTheSettingsSubscriptionThereIsNoFacade) {
  m_interceptor.Reset();
  const std::int32_t before = zym::ModuleObjectCounter::Value();
  m_host.locator->FailWith(IInterceptorSettingsSubscription::kIid, zym::ZYM_E_NOT_FOUND);
  try {
    m_interceptor = zym::CreateObject<Interceptor>(m_host.locator.get());
    ADD_FAILURE() << "it was made";
  } catch (const zym::CheckResultFailedException& e) {
    EXPECT_EQ(e.Result(), zym::ZYM_E_NOT_FOUND);
    EXPECT_NE(std::string(e.what()).find("Cannot get qor::process_manager::IInterceptorSettingsSubscription"),
              std::string::npos)
        << e.what();
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), before);
  EXPECT_TRUE(ThreadsNamed("vornPrcMonProc").empty());
}

TEST_F(InterceptorTest, EachRequiredServiceIsRequired) {
  m_interceptor.Reset();
  const std::int32_t before = zym::ModuleObjectCounter::Value();
  for (const zym::iid_t iid :
       {0x6ef3329bU, 0xc9b36ad4U, 0x79864d30U, 0x2b6ab0fbU, 0x97074f39U, 0xa26c8413U}) {
    FakeHost host;
    host.locator->Add(zym::CreateObject<FakeProcfsParser>());
    host.locator->Add(zym::CreateObject<RecordingEventInfoProvider>());
    host.locator->Add(zym::CreateObject<InterceptorSettingsSubscription>(host.tracer, InterceptorSettings()),
                      IInterceptorSettingsSubscription::kIid);
    host.locator->FailWith(iid, zym::ZYM_E_ACCESS_DENIED);
    EXPECT_ANY_THROW(static_cast<void>(zym::CreateObject<Interceptor>(host.locator.get())))
        << std::hex << iid;
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), before);
}

TEST_F(InterceptorTest, OnlyTheDispatchersThreadRunsFromTheStart) {
  EXPECT_TRUE(Eventually([] { return ThreadsNamed("vornPrcMonProc").size() == 1; }));
  EXPECT_TRUE(ThreadsNamed(kPollThread).empty());
  m_interceptor.Reset();
  EXPECT_TRUE(ThreadsNamed("vornPrcMonProc").empty());
}

TEST_F(InterceptorTest, ItsEndEndsARunningSource) {
  SKIP_IF(MissingProcConnector());
  m_interceptor.Reset();
  const auto descriptors = OpenDescriptors();
  m_interceptor = zym::CreateObject<Interceptor>(m_host.locator.get());
  Registered(event_type::kCreateProcess);
  ASSERT_EQ(m_interceptor->EnableNonBlockingInterceptor(kNetlink), zym::ZYM_OK);
  m_interceptor.Reset();
  EXPECT_TRUE(ThreadsNamed(kPollThread).empty());
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(m_handler->AddRef(), 2U);
  m_handler->Release();
}

}  // namespace
