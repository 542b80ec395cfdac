// Tracers that take nothing, and tracers that break in the middle of a record: what the module does is the
// same with each.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "module/fault_host.h"
#include "process_manager/application_manager.h"
#include "process_manager/file_name_mapper.h"
#include "process_manager/process_manager.h"
#include "process_manager/process_memory.h"
#include "process_manager/process_modules.h"
#include "process_manager/user_localization.h"
#include "support/actor.h"
#include "support/fake_process_control.h"
#include "support/memory_actor.h"
#include "support/own_process.h"
#include "support/rights.h"
#include "support/threads.h"

namespace {

using namespace test_support;
using namespace system_interceptors;
namespace class_ids = qor::class_ids;
namespace non_blocking_type = qor::process_manager::non_blocking_type;

// A tracer without a level ceiling.
class FaultyTracer : public zym::object::Ifaces<zym::ITracer> {
 public:
  enum class Fault {
    kNone,
    kRefuses,          // every record
    kGivesNoBuffer,    // success, and no buffer
    kFailsToGrow,      // any record
    kGrowsToNothing,   // success, and no buffer, when a record is to grow
    kRefusesFailures,  // but takes the rest
  };

  explicit FaultyTracer(Fault fault) : m_fault(fault) {}

  zym::result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override {
    if (*buffer != nullptr) return Grow(buffer, size);
    if (m_fault == Fault::kRefuses) return zym::ZYM_E_NOT_MATCHED;
    if (m_fault == Fault::kRefusesFailures && level == zym::trace::kFailure) return zym::ZYM_E_UNSPECIFIED;
    if (m_fault == Fault::kGivesNoBuffer) return zym::ZYM_OK;
    *buffer = std::malloc(size);
    ++m_open;
    return zym::ZYM_OK;
  }
  void CommitRecord(void* buffer, std::uint64_t) override {
    std::free(buffer);
    --m_open;
    ++m_committed;
  }

  std::int64_t Open() const { return m_open; }
  std::uint64_t Committed() const { return m_committed; }

 private:
  zym::result_t Grow(void** buffer, std::uint64_t size) {
    if (m_fault == Fault::kFailsToGrow) return zym::ZYM_E_OUT_OF_MEMORY;
    if (m_fault == Fault::kGrowsToNothing) {
      // The record stays open as it was: the caller keeps its own pointer to it.
      *buffer = nullptr;
      return zym::ZYM_OK;
    }
    *buffer = std::realloc(*buffer, size);
    return zym::ZYM_OK;
  }

  const Fault m_fault;
  std::atomic<std::int64_t> m_open{0};
  std::atomic<std::uint64_t> m_committed{0};
};
using Fault = FaultyTracer::Fault;

// Processes as objects: found, missed, refused.
void LiveWithProcesses(const ModuleHost& host, const std::function<void(zym::result_t)>& note) {
  zym::intrusive_ptr<process_manager::IProcessManager> manager;
  note(host.module.Make(class_ids::kProcessManager, host.host.locator.get(), manager));
  zym::intrusive_ptr<process_manager::IProcessInformationEnumerator> snapshot;
  note(manager->Enumerate(snapshot.Ref()));
  zym::intrusive_ptr<process_manager::IProcessInformation> information;
  note(snapshot->Next(information.Ref()));
  note(snapshot->Reset());
  const auto self = static_cast<qor::PidType>(::getpid());
  for (const qor::PidType pid : {self, qor::PidType{0}, qor::kNoPid, qor::PidType{0x7ffffffe}})
    note(manager->GetInformation(pid, information.Ref()));
  note(manager->GetInformationByUniqueId(qor::kNoUniquePid, information.Ref()));
  note(manager->GetInformation(self, information.Ref()));
  process_manager::ProcessInformation record;
  note(information->GetInformation(record));
  zym::intrusive_ptr<process_manager::IPosixProcessInformation2> posix;
  note(zym::QueryInterface(information, posix.Ref()));
  std::uint32_t id = 0;
  std::uint64_t mountNamespace = 0;
  note(posix->GetEffectiveUserId(id));
  note(posix->IsHostMountNamespace());
  note(posix->GetMountNamespaceId(mountNamespace));

  zym::intrusive_ptr<process_manager::IProcessControl> control;
  note(manager->GetControl(1, control.Ref()));  // there are no settings
  note(manager->GetControl(self, control.Ref()));
  process_manager::ProcessTimes times;
  process_manager::ProcessIoCounters counters;
  zym::datetime_t time = 0;
  note(control->GetTimes(times));
  note(control->GetIoCounters(counters));
  note(control->GetExitTime(time));
  zym::intrusive_ptr<process_manager::IProcessAttributes> attributes;
  note(zym::QueryInterface(control, attributes.Ref()));
  note(attributes->UpdateAttributeFlags(2, 1));
  note(attributes->UpdateAttributeFlags(1, 1));
  note(attributes->GetAttributeFlags(id));
  {
    const Actor actor({"ignore", "15", "say", "wait"});
    note(manager->GetControl(static_cast<qor::PidType>(actor.Pid()), control.Ref()));
    note(control->TerminateAndWait(0));
  }
  note(control->Terminate());
  note(control->GetTimes(times));
}

// The memory and the modules of a process: there, not there, refused.
void LiveWithMemory(const ModuleHost& host, const std::function<void(zym::result_t)>& note) {
  using namespace process_memory_manager;
  const MemoryActor actor;
  zym::intrusive_ptr<process_manager::IProcessManager> manager;
  note(host.module.Make(class_ids::kProcessManager, host.host.locator.get(), manager));
  zym::intrusive_ptr<process_manager::IProcessControl> control;
  note(manager->GetControl(actor.Pid(), control.Ref()));
  zym::intrusive_ptr<IProcessMemoryFactory> factory;
  note(host.module.Make(class_ids::kProcessMemoryFactory, host.host.locator.get(), factory));
  zym::intrusive_ptr<IProcessMemory> memory;
  note(factory->Create(zym::CreateObject<FakeProcessControl>(0).get(), memory.Ref()));
  note(factory->Create(zym::CreateObject<FakeProcessControl>(qor::kNoPid).get(), memory.Ref()));
  note(factory->Create(control.get(), memory.Ref()));

  const std::uint64_t file = actor.Get("file").address;
  constexpr std::uint64_t kAboveAll = 0xfffffffffffff000;
  ProcessMemoryRegionInformation region;
  zym::types::string16_t text;
  std::uint8_t byte = 0;
  for (const std::uint64_t address : {std::uint64_t{0}, file, kAboveAll}) {
    note(memory->QueryRegion(address, region));
    note(memory->QueryMappedFilePath(address, text));
  }
  for (const std::uint64_t address : {std::uint64_t{0}, file, actor.Get("unmapped").address})
    note(memory->ReadMemory(address, {&byte, &byte + 1}));
  note(memory->WriteMemory(file, {&byte, &byte + 1}));
  zym::intrusive_ptr<IProcessMemoryRegionEnumerator> regions;
  note(memory->EnumerateMemoryRegions(regions.Ref()));
  note(regions->Next(region));
  while (regions->Next(region) == zym::ZYM_OK) {
  }
  note(regions->Next(region));
  note(regions->Reset());

  zym::intrusive_ptr<process_manager::IProcessModuleManager> modules;
  note(host.module.Make(class_ids::kProcessModuleManager, host.host.locator.get(), modules));
  zym::intrusive_ptr<process_manager::IProcessModuleEnumerator> enumerator;
  zym::intrusive_ptr<process_manager::IProcessModule> module;
  for (const qor::PidType pid : {qor::PidType{0}, qor::kNoPid, actor.Pid()})
    note(modules->EnumerateModules(pid, enumerator.Ref()));
  note(enumerator->Next(module.Ref()));
  note(enumerator->Reset());
  note(modules->GetModule(qor::kNoPid, file, module.Ref()));
  note(modules->GetModule(actor.Pid(), file + 1, module.Ref()));
  note(modules->GetModule(actor.Pid(), file, module.Ref()));
  process_manager::ProcessModuleInformation information;
  std::uint64_t number = 0;
  note(module->GetImagePath(text));
  note(module->GetBaseAddress(number));
  note(module->GetSize(number));
  note(module->GetInformation(information));
}

// Applications, languages of users, names of files.
void LiveWithNames(const ModuleHost& host, const std::function<void(zym::result_t)>& note) {
  using namespace application_manager_facade;
  zym::intrusive_ptr<IApplicationManager> applications;
  note(host.module.Make(class_ids::kApplicationManager, host.host.locator.get(), applications));
  zym::intrusive_ptr<IApplication> application;
  constexpr auto kPriority = application_manager::application_priority::kNormal;
  note(applications->OpenApplication(7, application.Ref()));
  note(applications->CreateApplication(7, kPriority, application.Ref()));
  note(applications->CreateApplication(7, kPriority, application.Ref()));
  note(applications->OpenApplication(7, application.Ref()));
  zym::intrusive_ptr<interceptor_facade::IInterceptor> interceptor;
  note(application->GetInterceptor(interceptor.Ref()));  // there is none
  note(applications->DeleteApplication(7));
  note(applications->DeleteApplication(7));

  zym::intrusive_ptr<qor::process_manager::IProcessUserLocalizationProvider> languages;
  note(host.module.Make(class_ids::kProcessUserLocalizationProvider, host.host.locator.get(), languages));
  zym::types::string16_t text;
  for (const qor::PidType pid : {static_cast<qor::PidType>(::getpid()), qor::PidType{0}, qor::kNoPid})
    note(languages->GetProcessUserLocalization(pid, text));

  zym::intrusive_ptr<file_name_mapper::IFileNameMapper> mapper;
  note(host.module.Make(class_ids::kFileNameMapper, host.host.locator.get(), mapper));
  zym::intrusive_ptr<file_name_mapper::IFileNameMapper2> mapper2;
  note(zym::QueryInterface(mapper, mapper2.Ref()));
  zym::intrusive_ptr<dorp::IFileNameMapper> dorps;
  note(zym::QueryInterface(mapper, dorps.Ref()));
  note(mapper->CopyName(u"/a/./b", text));
  note(mapper->NormalizeName(u"/a/./b", text));
  note(mapper2->CopyName(u"/a/./b", text, 1));
  note(dorps->CopyNameBack(u"/a/./b", text));
}

// A whole day of a host: everything that gives a result, and the events of one child.
struct Day {
  std::vector<zym::result_t> results;
  std::vector<std::uint32_t> events;  // the types

  friend bool operator==(const Day&, const Day&) = default;
};

Day Live(const ModuleHost& host) {
  Day day;
  const auto note = [&day](zym::result_t result) { day.results.push_back(result); };

  zym::intrusive_ptr<interceptor_facade::IInterceptor2> interceptor;
  note(host.CreateInterceptor(interceptor));
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
  note(zym::QueryInterface(interceptor, control.Ref()));
  const auto handler = zym::CreateObject<RecordingHandler>();
  std::vector<unsigned int> ids(3);
  note(interceptor->RegisterNonBlockingFilterAttachHandler({.type = event_type::kCreateProcess}, true, 0,
                                                           handler.get(), &ids[0]));
  note(interceptor->RegisterNonBlockingFilterAttachHandler({.type = event_type::kExitProcess}, true, 0,
                                                           handler.get(), &ids[1]));
  note(interceptor->RegisterNonBlockingFilterAttachHandler({.type = event_type::kJournal}, true, 0,
                                                           handler.get(), &ids[2]));
  note(interceptor->GetOfflineLog());
  note(control->EnableNonBlockingInterceptor(non_blocking_type::kKprobes));
  note(control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink |
                                             non_blocking_type::kFullProcessInfo));
  const pid_t child = ::fork();
  if (child == 0) {
    ::execl("/bin/sh", "sh", "-c", "read line < /dev/null; exit 0", nullptr);
    ::_exit(1);
  }
  ::waitpid(child, nullptr, 0);
  const pid_t marker = ::fork();
  if (marker == 0) ::_exit(0);
  ::waitpid(marker, nullptr, 0);
  handler->WaitFor([&](const SeenEvent& event) {
    return event.pid == static_cast<std::uint32_t>(marker) && event.type == event_type::kExitProcess;
  });
  for (const SeenEvent& event : handler->Events())
    if (event.pid == static_cast<std::uint32_t>(child)) day.events.push_back(event.type);
  note(interceptor->DeleteFilters({ids.data(), ids.data() + ids.size()}));
  note(control->DisableNonBlockingInterceptor(0xf));

  zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsHolder> holder;
  note(zym::QueryInterface(host.settings, holder.Ref()));
  qor::process_manager::InterceptorSettings settings;
  settings.excluded.emplace_back("/mnt/*");
  note(holder->SetSettings(settings));
  note(holder->GetSettings(settings));
  note(host.settings->Unsubscribe(nullptr));

  const auto none = static_cast<qor::PidType>(0x7ffffffe);
  qor::procfs::Stat stat;
  qor::NativePath path;
  std::vector<unsigned int> list;
  zym::types::string16_t text;
  qor::process_manager::process_cache::ProcessInformation info;
  note(host.parser->GetStat(0, stat));
  note(host.parser->GetStat(none, stat));
  note(host.parser->GetStat(static_cast<qor::PidType>(::getpid()), stat));
  note(host.parser->GetImagePath(none, path));
  note(host.parser->GetDescriptors(none, list));
  note(host.parser->GetCmdline(none, text));
  note(host.parser->GetEnvironmentVariable(none, "PATH", path));
  note(host.cache->GetByUniquePid(77, info) ? 1 : 0);
  LiveWithProcesses(host, note);
  LiveWithMemory(host, note);
  LiveWithNames(host, note);
  zym::IObject* object = nullptr;
  const CreationRecord record{.locator = nullptr};
  note(host.module.createObject(0x12345678, &record, &object));
  return day;
}

class TracerFaults : public testing::TestWithParam<Fault> {
 protected:
  void SetUp() override { SKIP_IF(MissingProcConnector()); }
};

TEST_P(TracerFaults, ChangeNothingInWhatTheModuleDoes) {
  Day expected;
  {
    const ModuleHost host;
    expected = Live(host);
    EXPECT_EQ(expected.events.size(), 4U);
    EXPECT_EQ(host.host.tracer->OpenRecords(), 0U);
  }
  const auto tracer = zym::CreateObject<FaultyTracer>(GetParam());
  {
    const ModuleHost host(tracer);
    EXPECT_EQ(Live(host), expected);
  }
  EXPECT_EQ(tracer->Open(), 0) << "each record that was opened is committed";
  EXPECT_EQ(tracer->Committed() == 0, GetParam() == Fault::kRefuses || GetParam() == Fault::kGivesNoBuffer);
  EXPECT_EQ(tracer->AddRef(), 2U) << "nobody keeps the tracer";
  tracer->Release();
}

INSTANTIATE_TEST_SUITE_P(All, TracerFaults,
                         testing::Values(Fault::kNone, Fault::kRefuses, Fault::kGivesNoBuffer,
                                         Fault::kFailsToGrow, Fault::kGrowsToNothing,
                                         Fault::kRefusesFailures));

// A process whose command line and environment don't fit into the first buffer of a record, each way.
TEST(TracerFaultsOfLongTexts, ARecordThatCantGrowLosesItsTextAndNotTheEvent) {
  SKIP_IF(MissingProcConnector());
  for (const Fault fault : {Fault::kNone, Fault::kFailsToGrow, Fault::kGrowsToNothing}) {
    const auto tracer = zym::CreateObject<FaultyTracer>(fault);
    {
      const ModuleHost host(tracer);
      zym::intrusive_ptr<interceptor_facade::IInterceptor2> interceptor;
      ASSERT_EQ(host.CreateInterceptor(interceptor), zym::ZYM_OK);
      zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
      ASSERT_EQ(zym::QueryInterface(interceptor, control.Ref()), zym::ZYM_OK);
      const auto handler = zym::CreateObject<RecordingHandler>();
      unsigned int id = 0;
      ASSERT_EQ(interceptor->RegisterNonBlockingFilterAttachHandler({.type = event_type::kExitProcess}, true,
                                                                    0, handler.get(), &id),
                zym::ZYM_OK);
      ASSERT_EQ(control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
      const std::string argument(100'000, 'x');
      int end[2];
      ASSERT_EQ(::pipe(end), 0);
      const pid_t child = ::fork();
      if (child == 0) {
        ::dup2(end[0], STDIN_FILENO);
        ::close(end[0]);
        ::close(end[1]);
        ::execl("/bin/sh", "sh", "-c", "read line", argument.c_str(), nullptr);
        ::_exit(1);
      }
      const auto pid = static_cast<std::uint32_t>(child);
      EXPECT_TRUE(handler->WaitFor([&](const SeenEvent& event) { return event.pid == pid; }))
          << "the image before the shell's";
      ::close(end[0]);
      ::close(end[1]);
      ASSERT_EQ(::waitpid(child, nullptr, 0), child);
      const auto last = handler->WaitFor([&](const SeenEvent& event) {
        return event.pid == pid && event.commandLine && event.commandLine->ends_with(u"xxx");
      });
      EXPECT_TRUE(last.has_value());
    }
    EXPECT_EQ(tracer->Open(), 0);
  }
}

}  // namespace
