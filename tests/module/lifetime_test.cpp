// What becomes of the module's objects, threads, descriptors and memory.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

#include "module/module_host.h"
#include "process_manager/application_manager.h"
#include "process_manager/file_name_mapper.h"
#include "process_manager/meta_info.h"
#include "process_manager/process_manager.h"
#include "process_manager/process_memory.h"
#include "process_manager/process_modules.h"
#include "process_manager/user_localization.h"
#include "support/actor.h"
#include "support/own_process.h"
#include "support/rights.h"

namespace {

using namespace test_support;
using system_interceptors::application_manager_facade::IApplicationManager;

TEST(ModuleLifetime, NoThreadAndNoDescriptorIsLeftAndTheModuleCanBeLoadedAgain) {
  const auto round = [] {
    const ModuleHost moduleHost;
    zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
    ASSERT_EQ(moduleHost.CreateInterceptor(interceptor), zym::ZYM_OK);
    if (!MissingProcConnector().empty()) return;  // the rest of the round is the same
    zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
    ASSERT_EQ(zym::QueryInterface(interceptor, control.Ref()), zym::ZYM_OK);
    ASSERT_EQ(control->EnableNonBlockingInterceptor(1), zym::ZYM_OK);
  };
  round();
  const std::size_t threads = ThreadCount();
  const auto descriptors = OpenDescriptors();
  round();
  EXPECT_EQ(ThreadCount(), threads);
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(ModuleLifetime, AThousandRoundsOfEveryClassLeaveMemoryWhereItWas) {
  const auto round = [](int number) {
    const ModuleHost moduleHost;
    zym::IServiceLocator* const locator = moduleHost.host.locator.get();
    zym::intrusive_ptr<zym::IMetaInfoProvider> registry;
    EXPECT_EQ(moduleHost.module.Make(qor::class_ids::kTypeDescriptorStaticRegistry, locator, registry),
              zym::ZYM_OK);
    namespace process = system_interceptors::process_manager;
    const auto self = static_cast<qor::PidType>(::getpid());
    zym::intrusive_ptr<process::IProcessManager> processes;
    EXPECT_EQ(moduleHost.module.Make(qor::class_ids::kProcessManager, locator, processes), zym::ZYM_OK);
    zym::intrusive_ptr<process::IProcessInformation> information;
    EXPECT_EQ(processes->GetInformation(self, information.Ref()), zym::ZYM_OK);
    zym::intrusive_ptr<process::IProcessControl> control;
    EXPECT_EQ(processes->GetControl(self, control.Ref()), zym::ZYM_OK);
    zym::intrusive_ptr<process::IProcessInformationEnumerator> snapshot;
    if (number % 10 == 0) {  // one reads every process of the machine
      EXPECT_EQ(processes->Enumerate(snapshot.Ref()), zym::ZYM_OK);
    }
    zym::intrusive_ptr<process::IProcessModuleManager> modules;
    EXPECT_EQ(moduleHost.module.Make(qor::class_ids::kProcessModuleManager, locator, modules), zym::ZYM_OK);
    zym::intrusive_ptr<system_interceptors::process_memory_manager::IProcessMemoryFactory> memories;
    EXPECT_EQ(moduleHost.module.Make(qor::class_ids::kProcessMemoryFactory, locator, memories), zym::ZYM_OK);
    zym::intrusive_ptr<qor::procfs::IParser> local;
    EXPECT_EQ(moduleHost.module.Make(qor::class_ids::kLocalProcParser, locator, local), zym::ZYM_OK);
    zym::intrusive_ptr<IApplicationManager> applications;
    EXPECT_EQ(moduleHost.module.Make(qor::class_ids::kApplicationManager, locator, applications),
              zym::ZYM_OK);
    zym::intrusive_ptr<system_interceptors::application_manager_facade::IApplication> application;
    EXPECT_EQ(applications->CreateApplication(1, {}, application.Ref()), zym::ZYM_OK);
    zym::intrusive_ptr<dorp::IFileNameMapper> mapper;
    EXPECT_EQ(moduleHost.module.Make(qor::class_ids::kFileNameMapper, locator, mapper), zym::ZYM_OK);
    zym::intrusive_ptr<qor::process_manager::IProcessUserLocalizationProvider> languages;
    EXPECT_EQ(moduleHost.module.Make(qor::class_ids::kProcessUserLocalizationProvider, locator, languages),
              zym::ZYM_OK);
    zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
    EXPECT_EQ(moduleHost.CreateInterceptor(interceptor), zym::ZYM_OK);
  };
  for (int i = 0; i < 100; ++i) round(i);
  const std::size_t before = ResidentBytes();
  for (int i = 0; i < 1000; ++i) round(i);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(ResidentBytes(), before + (1 << 20)) << "a kilobyte a round would be a megabyte";
#else
  static_cast<void>(before);  // a sanitizer keeps what is freed
#endif
}

// Whatever allocation of the host's memory fails, each class of a factory is made or refused, and nothing is
// left.
TEST(ModuleLifetime, AnAllocatorThatFailsAtAnyCallLeavesNothing) {
  const LoadedModule module;
  const FakeHost host;
  for (const std::uint32_t classId :
       {qor::class_ids::kApplicationManager, qor::class_ids::kFileNameMapper,
        qor::class_ids::kTypeDescriptorStaticRegistry, qor::class_ids::kProcessManager,
        qor::class_ids::kProcessModuleManager, qor::class_ids::kProcessUserLocalizationProvider,
        qor::class_ids::kProcessMemoryFactory, qor::class_ids::kProcParser,
        qor::class_ids::kLocalProcParser}) {
    bool made = false;
    for (std::uint64_t call = 0; !made; ++call) {
      ASSERT_LT(call, 100U);
      host.allocator->FailFrom(call);
      zym::intrusive_ptr<zym::IObject> object;
      zym::intrusive_ptr<zym::IObjectFactory> factory;
      ASSERT_EQ(module.getObjectFactory(host.locator.get(), classId, factory.Ref()), zym::ZYM_OK);
      const zym::result_t result = zym::CreateInstance(factory.get(), host.locator.get(), object.Ref());
      made = result == zym::ZYM_OK;
      if (!made) {
        EXPECT_EQ(result, zym::ZYM_E_OUT_OF_MEMORY);
        EXPECT_EQ(host.allocator->Live(), 0);
      }
    }
    host.allocator->NeverFail();
    EXPECT_EQ(host.allocator->Live(), 0);
  }
}

TEST(ModuleLifetime, TheEntriesMayBeCalledFromSeveralThreads) {
  const LoadedModule module;
  const FakeHost host;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int j = 0; j < 200; ++j) {
        zym::intrusive_ptr<qor::procfs::IParser> parser;
        EXPECT_EQ(module.Make(qor::class_ids::kProcParser, host.locator.get(), parser), zym::ZYM_OK);
        zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> cache;
        EXPECT_EQ(module.Create(qor::class_ids::kProcessCache, host.locator.get(), cache), zym::ZYM_OK);
        EXPECT_EQ(module.canUnloadModule(), zym::ZYM_FALSE);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(module.canUnloadModule(), zym::ZYM_OK);
}

// An object that nobody can reach any more still pins the module: here a handler keeps an event.
TEST(ModuleLifetime, AnEventThatAHandlerKeepsPinsTheModule) {
  SKIP_IF(MissingProcConnector());
  class Keeper : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
   public:
    void OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t) override {
      const std::scoped_lock lock(m_mutex);
      m_event = zym::intrusive_ptr<qor::process_manager::ISystemEvent>(event);
      m_arrived.notify_all();
    }
    zym::intrusive_ptr<qor::process_manager::ISystemEvent> Take() {
      std::unique_lock lock(m_mutex);
      EXPECT_TRUE(m_arrived.wait_for(lock, std::chrono::seconds(30), [this] { return bool(m_event); }));
      return std::move(m_event);
    }

   private:
    std::mutex m_mutex;  // guards m_event
    std::condition_variable m_arrived;
    zym::intrusive_ptr<qor::process_manager::ISystemEvent> m_event;
  };
  const ModuleHost moduleHost;
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
  ASSERT_EQ(moduleHost.CreateInterceptor(interceptor), zym::ZYM_OK);
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
  ASSERT_EQ(zym::QueryInterface(interceptor, control.Ref()), zym::ZYM_OK);
  const auto keeper = zym::CreateObject<Keeper>();
  std::uint32_t id = 0;
  ASSERT_EQ(interceptor->RegisterNonBlockingFilterAttachHandler(
                {.type = system_interceptors::event_type::kExitProcess}, true, 0, keeper.get(), &id),
            zym::ZYM_OK);
  ASSERT_EQ(control->EnableNonBlockingInterceptor(1), zym::ZYM_OK);
  RunTrue();
  const zym::intrusive_ptr<qor::process_manager::ISystemEvent> kept = keeper->Take();
  ASSERT_EQ(interceptor->DeleteFilters({&id, &id + 1}), zym::ZYM_OK);
  interceptor.Reset();
  control.Reset();
  EXPECT_TRUE(ThreadsNamed("vornPrcMonProc").empty()) << "the facade is gone";
  EXPECT_EQ(moduleHost.module.canUnloadModule(), zym::ZYM_FALSE);
  EXPECT_NE(kept->GetPid(), 0U) << "the event can still be read";
}

}  // namespace
