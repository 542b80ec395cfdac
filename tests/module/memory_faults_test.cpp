// Memory that gives out at each single allocation of an operation, and from each one on: every operation says
// so by its result, leaves nothing behind, and works when there is memory again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "module/fault_host.h"
#include "process_manager/process_access.h"
#include "qor_common/unique_fd.h"
#include "support/actor.h"
#include "support/child.h"
#include "support/fake_exclusions.h"
#include "support/forwarding_parser.h"
#include "support/own_process.h"
#include "support/threads.h"

namespace {

using namespace test_support;
using namespace system_interceptors;
using qor::UniqueFd;
using qor::process_manager::InterceptorSettings;
using Failing = HeapFaults::Failing;
using Threads = HeapFaults::Threads;
namespace class_ids = qor::class_ids;
namespace non_blocking_type = qor::process_manager::non_blocking_type;

// Where and how long the memory is gone.
struct Shortage {
  Failing failing;
  std::uint64_t call;

  friend std::ostream& operator<<(std::ostream& out, const Shortage& shortage) {
    return out << (shortage.failing == Failing::kOnce ? "allocation " : "every allocation from ")
               << shortage.call;
  }
};

// No operation here needs nearly so many.
constexpr std::uint64_t kTooMany = 3000;

// Calls `round` with each shortage that there can be, or with every `stride`th; it gives whether an
// allocation failed.
void AtEachAllocation(const std::function<bool(Shortage)>& round, std::uint64_t stride = 1) {
  for (const Failing failing : {Failing::kOnce, Failing::kFromThenOn}) {
    std::uint64_t call = 0;
    while (call < kTooMany && round({failing, call}) && !testing::Test::HasFailure()) call += stride;
    EXPECT_LT(call, kTooMany) << "it never ended";
    if (HeapFaults::SeesAll()) {
      EXPECT_GT(call, 0U) << "nothing was ever allocated: the test has no hold on it";
    }
  }
}

// The results with which an operation may fail for want of memory.
bool IsOneOf(zym::result_t result, std::initializer_list<zym::result_t> results) {
  return std::ranges::find(results, result) != results.end();
}

// --- making objects
// -------------------------------------------------------------------------------------------

class EveryFactoryClass : public testing::TestWithParam<std::uint32_t> {};
class EveryCreatedClass : public testing::TestWithParam<std::uint32_t> {};

TEST_P(EveryFactoryClass, IsMadeOrRefusedWhateverAllocationFails) {
  const FaultHost faultHost;
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    faultHost.host.tracer->Clear();
    const std::int64_t before = HeapFaults::Live();
    const std::int64_t hostsBefore = faultHost.host.allocator->Live();
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    zym::intrusive_ptr<zym::IObject> object;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    zym::result_t result = faultHost.module.getObjectFactory(faultHost.Locator(), GetParam(), factory.Ref());
    if (result == zym::ZYM_OK)
      result = factory->CreateInstance(faultHost.Locator(), 0, reinterpret_cast<void**>(object.Ref()));
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_EQ(faultHost.host.tracer->Has(300, "Exception during object construction: std::bad_alloc"),
              faults.Fired());
    EXPECT_EQ(bool(object), !faults.Fired());
    object.Reset();
    factory.Reset();
    faultHost.host.tracer->Clear();
    EXPECT_EQ(faultHost.host.allocator->Live(), hostsBefore);
    EXPECT_EQ(HeapFaults::Live(), before);
    return faults.Fired();
  });
}

INSTANTIATE_TEST_SUITE_P(MemoryFaults, EveryFactoryClass,
                         testing::Values(class_ids::kTypeDescriptorStaticRegistry, class_ids::kProcessManager,
                                         class_ids::kProcParser, class_ids::kLocalProcParser));

TEST_P(EveryCreatedClass, IsMadeOrRefusedWhateverAllocationFails) {
  const FaultHost faultHost;
  zym::intrusive_ptr<zym::IObject> object;
  ASSERT_EQ(faultHost.CreateObject(GetParam(), object), zym::ZYM_OK);  // what libraries keep for good
  object.Reset();
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    faultHost.host.tracer->Clear();
    const std::int64_t before = HeapFaults::Live();
    const std::size_t threads = ThreadCount();
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = faultHost.CreateObject(GetParam(), object);
    faults.End();
    EXPECT_EQ(bool(object), result == zym::ZYM_OK);
    if (faults.Fired()) {
      // A thread that can't be made is an exception of the library that makes it, which has no code.
      EXPECT_TRUE(
          IsOneOf(result, {zym::ZYM_OK, zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_EXCEPTION_WITHOUT_RESULT}))
          << std::hex << result;
      EXPECT_TRUE(result == zym::ZYM_OK || faultHost.host.tracer->Has(300, ""));
    } else {
      EXPECT_EQ(result, zym::ZYM_OK);
    }
    object.Reset();
    faultHost.host.tracer->Clear();
    EXPECT_EQ(ThreadCount(), threads);
    EXPECT_EQ(HeapFaults::Live(), before);
    return faults.Fired();
  });
}

INSTANTIATE_TEST_SUITE_P(MemoryFaults, EveryCreatedClass,
                         testing::Values(class_ids::kInterceptor, class_ids::kInterceptorSettingsSubscription,
                                         class_ids::kProcessCache));

// What is released needs no memory to go.
TEST(MemoryFaults, EveryObjectEndsWithoutMemory) {
  ExpectNothingIsKept([] {
    const FaultHost faultHost;
    std::vector<zym::intrusive_ptr<zym::IObject>> objects;
    for (const std::uint32_t classId :
         {class_ids::kInterceptor, class_ids::kInterceptorSettingsSubscription, class_ids::kProcessCache}) {
      objects.emplace_back();
      ASSERT_EQ(faultHost.CreateObject(classId, objects.back()), zym::ZYM_OK);
    }
    for (const std::uint32_t classId : {class_ids::kTypeDescriptorStaticRegistry, class_ids::kProcessManager,
                                        class_ids::kProcParser, class_ids::kLocalProcParser}) {
      zym::intrusive_ptr<zym::IObjectFactory> factory;
      ASSERT_EQ(faultHost.module.getObjectFactory(faultHost.Locator(), classId, factory.Ref()), zym::ZYM_OK);
      objects.emplace_back();
      ASSERT_EQ(
          factory->CreateInstance(faultHost.Locator(), 0, reinterpret_cast<void**>(objects.back().Ref())),
          zym::ZYM_OK);
    }
    const HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
    for (auto& object : objects) object.Reset();
  });
}

// --- settings and meta-information
// ----------------------------------------------------------------------------

InterceptorSettings Excluding(std::initializer_list<const char*> patterns) {
  InterceptorSettings settings;
  settings.excluded.assign(patterns.begin(), patterns.end());
  return settings;
}

std::vector<std::string> Patterns(const InterceptorSettings& settings) {
  return {settings.excluded.begin(), settings.excluded.end()};
}

class Subscriber : public zym::object::Ifaces<qor::process_manager::IInterceptorSettings> {
 public:
  zym::result_t OnInterceptorSettingsChanged(const InterceptorSettings& settings) override {
    const HostsOwnMemory own;
    last = Patterns(settings);
    ++calls;
    return zym::ZYM_OK;
  }
  std::vector<std::string> last;
  int calls = 0;
};

constexpr const char* kOld = "/mnt/an old pattern that is too long for a string of its own/*";
constexpr const char* kNew = "/mnt/a new pattern that is too long for a string of its own/*";

TEST(MemoryFaults, AChangeOfTheSettingsIsWholeOrNone) {
  const FaultHost faultHost;
  zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsHolder> holder;
  ASSERT_EQ(zym::QueryInterface(faultHost.settings, holder.Ref()), zym::ZYM_OK);
  const auto subscriber = zym::CreateObject<Subscriber>();
  ASSERT_EQ(faultHost.settings->Subscribe(subscriber.get()), zym::ZYM_OK);
  const InterceptorSettings before = Excluding({kOld});
  const InterceptorSettings after = Excluding({kNew, kOld, kNew});
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    EXPECT_EQ(holder->SetSettings(before), zym::ZYM_OK);
    faultHost.host.tracer->Clear();
    const int calls = subscriber->calls;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = holder->SetSettings(after);
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_EQ(faultHost.host.tracer->Has(300, "SetSettings: std::bad_alloc"), faults.Fired());
    EXPECT_EQ(subscriber->calls, faults.Fired() ? calls : calls + 1);
    InterceptorSettings now;
    EXPECT_EQ(holder->GetSettings(now), zym::ZYM_OK);
    EXPECT_EQ(Patterns(now), Patterns(faults.Fired() ? before : after));
    EXPECT_EQ(subscriber->last, Patterns(now));
    return faults.Fired();
  });
  EXPECT_EQ(faultHost.settings->Unsubscribe(subscriber.get()), zym::ZYM_OK);
}

TEST(MemoryFaults, SettingsThatCantBeCopiedOutAreOutOfMemory) {
  const FaultHost faultHost;
  zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsHolder> holder;
  ASSERT_EQ(zym::QueryInterface(faultHost.settings, holder.Ref()), zym::ZYM_OK);
  ASSERT_EQ(holder->SetSettings(Excluding({kOld, kNew})), zym::ZYM_OK);
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    InterceptorSettings out;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = holder->GetSettings(out);
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_EQ(out.excluded.size(), faults.Fired() ? 0U : 2U);
    return faults.Fired();
  });
}

TEST(MemoryFaults, ASubscriptionIsMadeWithItsNotificationOrNotAtAll) {
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    const FaultHost faultHost;
    const auto subscriber = zym::CreateObject<Subscriber>();
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = faultHost.settings->Subscribe(subscriber.get());
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_EQ(subscriber->calls, faults.Fired() ? 0 : 1);
    EXPECT_EQ(faultHost.settings->Unsubscribe(subscriber.get()),
              faults.Fired() ? zym::ZYM_E_NOT_FOUND : zym::ZYM_OK);
    EXPECT_EQ(subscriber->AddRef(), 2U);
    subscriber->Release();
    return faults.Fired();
  });
}

TEST(MemoryFaults, EachOperationOfADescriptorDoesItsWorkOrSaysThatItCant) {
  const FaultHost faultHost;
  zym::IAllocator* const allocator = faultHost.host.allocator.get();
  zym::intrusive_ptr<zym::IMetaInfoProvider> registry;
  ASSERT_EQ(faultHost.module.Make(class_ids::kTypeDescriptorStaticRegistry, faultHost.Locator(), registry),
            zym::ZYM_OK);
  const zym::ISerObjDescriptor* descriptor = nullptr;
  ASSERT_EQ(registry->GetDescriptor(0x50058721, &descriptor), zym::ZYM_OK);
  const InterceptorSettings source = Excluding({kOld, kNew});
  using Ids = zym::types::vector_t<std::uint32_t>;
  const std::pair<const char*, std::function<zym::result_t()>> operations[] = {
      {"GetClassIds",
       [&] {
         Ids ids{Ids::allocator_type(allocator)};
         return registry->GetClassIds(ids);
       }},
      {"Create",
       [&] {
         void* const object = descriptor->Create(&source, allocator);
         if (object == nullptr) return zym::ZYM_E_OUT_OF_MEMORY;
         descriptor->Destroy(object);
         allocator->Free(object);
         return zym::ZYM_OK;
       }},
      {"Construct",
       [&] {
         alignas(InterceptorSettings) unsigned char memory[sizeof(InterceptorSettings)];
         const zym::result_t result = descriptor->Construct(memory, &source);
         if (result == zym::ZYM_OK) descriptor->Destroy(memory);
         return result;
       }},
      {"Assign",
       [&] {
         InterceptorSettings target;
         return descriptor->Assign(&source, &target);
       }},
      {"Resize",
       [&] {
         InterceptorSettings target;
         const zym::SerField& field = *descriptor->GetFields().begin();
         return field.vector->Resize(field.address(&target), 3);
       }},
  };
  for (const auto& [name, operation] : operations) {
    SCOPED_TRACE(name);
    AtEachAllocation([&operation = operation, &faultHost](Shortage shortage) {
      SCOPED_TRACE(shortage);
      const std::int64_t before = HeapFaults::Live();
      const std::int64_t hostsBefore = faultHost.host.allocator->Live();
      HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
      const zym::result_t result = operation();
      faults.End();
      EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
      EXPECT_EQ(HeapFaults::Live(), before);
      EXPECT_EQ(faultHost.host.allocator->Live(), hostsBefore);
      return faults.Fired();
    });
  }
}

// --- /proc
// ----------------------------------------------------------------------------------------------------

TEST(MemoryFaults, EachReadOfProcGivesAResultAndLetsNothingOut) {
  const FaultHost faultHost;
  qor::procfs::IParser& parser = *faultHost.parser;
  const Child shell = Child::Shell("/bin/sh");  // a sanitized process has mappings by the thousand
  const qor::PidType pid = shell.Pid();
  const std::pair<const char*, std::function<zym::result_t()>> operations[] = {
      {"GetProcLink",
       [&] {
         qor::NativePath target;
         return parser.GetProcLink(pid, "exe", target);
       }},
      {"GetMaps",
       [&] {
         qor::procfs::Maps maps;
         return parser.GetMaps(pid, maps);
       }},
      {"GetCmdline",
       [&] {
         zym::types::string16_t cmdline;
         return parser.GetCmdline(pid, cmdline);
       }},
      {"GetProcessList",
       [&] {
         std::vector<unsigned int> pids;
         return parser.GetProcessList(pids);
       }},
      {"GetProcessListByRelevance",
       [&] {
         std::vector<unsigned int> pids;
         return parser.GetProcessListByRelevance(pids);
       }},
      {"GetIOMemMap",
       [&] {
         qor::procfs::IOMemMap map;
         return parser.GetIOMemMap(map);
       }},
      {"GetImagePath",
       [&] {
         qor::NativePath path;
         return parser.GetImagePath(pid, path);
       }},
      {"GetDescriptors",
       [&] {
         std::vector<unsigned int> fds;
         return parser.GetDescriptors(pid, fds);
       }},
      {"GetModules",
       [&] {
         qor::procfs::ModulesList modules;
         return parser.GetModules(modules);
       }},
      {"GetModulesSections",
       [&] {
         qor::procfs::ModulesSections sections;
         return parser.GetModulesSections({}, sections, 0);
       }},
      {"GetCreds",
       [&] {
         qor::procfs::Creds creds;
         return parser.GetCreds(pid, creds);
       }},
      {"GetEnvironmentVariable",
       [&] {
         std::string value;
         return parser.GetEnvironmentVariable(pid, "PATH", value);
       }},
      {"GetEnvironmentVariables",
       [&] {
         zym::types::vector_t<zym::types::string_t> variables;
         return parser.GetEnvironmentVariables(pid, variables);
       }},
      {"GetStat",
       [&] {
         qor::procfs::Stat stat;
         return parser.GetStat(pid, stat);
       }},
      {"GetIOCounters",
       [&] {
         qor::procfs::IOCounters counters;
         return parser.GetIOCounters(pid, counters);
       }},
      {"GetComm",
       [&] {
         std::string comm;
         return parser.GetComm(pid, comm);
       }},
      {"GetDescriptorInfo",
       [&] {
         qor::procfs::DescriptorInfo info;
         return parser.GetDescriptorInfo(pid, 0, info);
       }},
      {"GetWorkingDir",
       [&] {
         qor::NativePath cwd;
         return parser.GetWorkingDir(pid, cwd);
       }},
      {"GetMountNamespaceId",
       [&] {
         std::uint64_t id = 0;
         return parser.GetMountNamespaceId(pid, id);
       }},
  };
  for (const auto& [name, operation] : operations) {
    SCOPED_TRACE(name);
    const zym::result_t healthy = operation();
    for (const Failing failing : {Failing::kOnce, Failing::kFromThenOn}) {
      bool fired = true;
      for (std::uint64_t call = 0; fired && call < kTooMany; ++call) {
        faultHost.host.tracer->Clear();
        const std::int64_t before = HeapFaults::Live();
        HeapFaults faults(Threads::kThis, failing, call);
        const zym::result_t result = operation();
        faults.End();
        fired = faults.Fired();
        if (fired) {
          // A directory that can't be opened says so, for whatever reason.
          EXPECT_TRUE(IsOneOf(result, {zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_UNSPECIFIED}))
              << std::hex << result;
          EXPECT_TRUE(faultHost.host.tracer->Has(300, "")) << "nobody was told";
        } else {
          EXPECT_EQ(result, healthy);
        }
        faultHost.host.tracer->Clear();
        EXPECT_EQ(HeapFaults::Live(), before);
      }
      EXPECT_FALSE(fired) << "it never ended";
    }
  }
}

// --- processes as objects
// -------------------------------------------------------------------------------------

// The list of processes that a test wants, and the module's reader for each of them.
class ShieldedParser : public ForwardingParser {
 public:
  ShieldedParser(zym::intrusive_ptr<qor::procfs::IParser> inner, std::vector<unsigned int> listed)
      : ForwardingParser(std::move(inner)), m_listed(std::move(listed)) {}

  zym::result_t GetProcessList(std::vector<unsigned int>& pids) override {
    const HostsOwnMemory own;
    pids = m_listed;
    return zym::ZYM_OK;
  }

 private:
  const std::vector<unsigned int> m_listed;
};

class ShieldedAppSettings : public FakeAppSettingsProvider {
 public:
  zym::result_t GetSettings(qor::AppSettings& out) override {
    const HostsOwnMemory own;
    return FakeAppSettingsProvider::GetSettings(out);
  }
};

class ShieldedMatchers : public FakePathMatcherFactory {
 public:
  zym::result_t CreatePathMatcher(const qor::PathList& patterns, qor::IPathMatcher** matcher) override {
    const HostsOwnMemory own;
    return FakePathMatcherFactory::CreatePathMatcher(patterns, matcher);
  }
};

// The door to processes, for two real ones. Neither is a child of the host's process, so that the settings
// are asked.
class ProcessObjectFaults : public testing::Test {
 protected:
  ProcessObjectFaults() : m_pid(static_cast<qor::PidType>(m_actor.HearPid())) {
    FakeLocator& locator = *m_faultHost.host.locator;
    locator.Add(zym::CreateObject<ShieldedParser>(m_faultHost.parser,
                                                  std::vector<unsigned int>{m_pid, 0xfffffffe, m_other}),
                qor::procfs::IParser::kIid);
    locator.Add(zym::CreateObject<ShieldedAppSettings>(), qor::IAppSettingsProvider::kIid);
    locator.Add(zym::CreateObject<ShieldedMatchers>(), qor::IPathMatcherFactory::kIid);
    EXPECT_EQ(m_faultHost.module.Make(class_ids::kProcessManager, m_faultHost.Locator(), m_manager),
              zym::ZYM_OK);
  }

  // The cache of the module; one that knows nothing, in place of it.
  void ForgetAllProcesses() {
    ASSERT_EQ(m_faultHost.module.Create(class_ids::kProcessCache, m_faultHost.Locator(), m_faultHost.cache),
              zym::ZYM_OK);
    m_faultHost.host.locator->Add(m_faultHost.cache);
  }
  void LearnTheProcess() {
    ForgetAllProcesses();
    zym::intrusive_ptr<process_manager::IProcessInformation> information;
    ASSERT_EQ(m_manager->GetInformation(m_pid, information.Ref()), zym::ZYM_OK);
    process_manager::ProcessInformation record;
    ASSERT_EQ(information->GetInformation(record), zym::ZYM_OK);
    m_uniquePid = record.uniquePid;
  }

  // An operation that gives an object, with each shortage that there can be.
  template <class I>
  void ExpectAnObjectOrNone(bool isKnown, const char* traced,
                            const std::function<zym::result_t(I** out)>& operation) {
    RecordingTracer& tracer = *m_faultHost.host.tracer;
    int nothing = 0;
    AtEachAllocation([&](Shortage shortage) {
      SCOPED_TRACE(shortage);
      ForgetAllProcesses();
      if (isKnown) LearnTheProcess();
      tracer.Clear();
      const std::int64_t before = HeapFaults::Live();
      auto* object = reinterpret_cast<I*>(&nothing);
      HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
      const zym::result_t result = operation(&object);
      faults.End();
      if (result == zym::ZYM_OK) {
        object->Release();
      } else {
        EXPECT_TRUE(faults.Fired());
        EXPECT_TRUE(IsOneOf(result, {zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_NOT_FOUND})) << std::hex << result;
        if (result == zym::ZYM_E_NOT_FOUND) {
          EXPECT_TRUE(tracer.Has(500, "Failed to obtain image path for pid: "))
              << "without which a process counts as gone, for whatever reason";
        }
        EXPECT_EQ(static_cast<void*>(object), &nothing);
        EXPECT_TRUE(tracer.Has(300, traced));
      }
      const bool wasRead = tracer.Has("Process info is missing in cache");
      tracer.Clear();
      if (!wasRead) {
        EXPECT_EQ(HeapFaults::Live(), before);
      }
      // And with memory it is as ever.
      EXPECT_EQ(operation(&object), zym::ZYM_OK);
      object->Release();
      return faults.Fired();
    });
  }

  FaultHost m_faultHost;
  Actor m_actor{{"abandon", "say", "wait"}};
  const qor::PidType m_pid;
  const qor::PidType m_other = static_cast<qor::PidType>(m_actor.Pid());
  qor::UniquePidType m_uniquePid = 0;
  zym::intrusive_ptr<process_manager::IProcessManager> m_manager;
};

TEST_F(ProcessObjectFaults, InformationIsGivenOrRefusedWhateverAllocationFails) {
  using process_manager::IProcessInformation;
  for (const bool isKnown : {true, false}) {
    SCOPED_TRACE(isKnown);
    ExpectAnObjectOrNone<IProcessInformation>(
        isKnown, "Failed to gain IProcessInformation for pid=", [&](IProcessInformation** out) {
          return m_manager->GetInformation(m_pid, out);
        });
    ExpectAnObjectOrNone<IProcessInformation>(
        isKnown, "Failed to gain IProcessInformation for uniqueId=", [&](IProcessInformation** out) {
          return m_manager->GetInformationByUniqueId(isKnown ? m_uniquePid : m_pid, out);
        });
  }
}

TEST_F(ProcessObjectFaults, AControlIsGivenOrRefusedWhateverAllocationFails) {
  using process_manager::IProcessControl;
  for (const bool isKnown : {true, false}) {
    SCOPED_TRACE(isKnown);
    ExpectAnObjectOrNone<IProcessControl>(
        isKnown, "Failed to gain IProcessControl for pid=", [&](IProcessControl** out) {
          return m_manager->GetControl(m_pid, out);
        });
    ExpectAnObjectOrNone<IProcessControl>(
        isKnown, "Failed to gain IProcessControl for uniqueId=", [&](IProcessControl** out) {
          return m_manager->GetControlByUniqueId(isKnown ? m_uniquePid : m_pid, out);
        });
  }
}

// A process for which there is no memory is left out with a word; the one that nobody has always is.
TEST_F(ProcessObjectFaults, ASnapshotHoldsWhatThereIsMemoryForAndSaysWhatItLeavesOut) {
  RecordingTracer& tracer = *m_faultHost.host.tracer;
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    ForgetAllProcesses();
    tracer.Clear();
    zym::intrusive_ptr<process_manager::IProcessInformationEnumerator> snapshot;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = m_manager->Enumerate(snapshot.Ref());
    faults.End();
    EXPECT_EQ(bool(snapshot), result == zym::ZYM_OK);
    if (snapshot) {
      std::size_t held = 0;
      zym::intrusive_ptr<process_manager::IProcessInformation> information;
      while (snapshot->Next(information.Ref()) == zym::ZYM_OK) ++held;
      const auto records = tracer.Records();
      const auto leftOut = std::ranges::count_if(records, [](const TraceRecord& record) {
        return record.level == 500 && record.text.starts_with("ProcessSnapshot: Failed to read info for ");
      });
      EXPECT_EQ(held + static_cast<std::size_t>(leftOut), 4U);
      if (!faults.Fired()) {
        EXPECT_EQ(held, 3U);
      }
    } else {
      EXPECT_TRUE(faults.Fired());
      EXPECT_EQ(result, zym::ZYM_E_OUT_OF_MEMORY);
      EXPECT_TRUE(tracer.Has(300, "Failed to gain IProcessInformationEnumeration"));
    }
    return faults.Fired();
  });
}

TEST_F(ProcessObjectFaults, WhatIsKnownIsCopiedOutWholeOrNotAtAll) {
  zym::intrusive_ptr<process_manager::IProcessInformationEnumerator> snapshot;
  ASSERT_EQ(m_manager->Enumerate(snapshot.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<process_manager::IProcessInformation> information;
  ASSERT_EQ(snapshot->Next(information.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<process_manager::IPosixProcessInformation> posix;
  ASSERT_EQ(zym::QueryInterface(information, posix.Ref()), zym::ZYM_OK);
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    m_faultHost.host.tracer->Clear();
    process_manager::ProcessInformation record;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = information->GetInformation(record);
    faults.End();
    // The text of its trace needs memory too, and goes without.
    EXPECT_TRUE(IsOneOf(result, {zym::ZYM_OK, zym::ZYM_E_OUT_OF_MEMORY}));
    EXPECT_EQ(record.pid, result == zym::ZYM_OK ? m_pid : 0U);
    EXPECT_EQ(record.imagePath.empty(), result != zym::ZYM_OK);
    return faults.Fired();
  });
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    zym::types::vector_t<zym::types::string_t> variables;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = posix->GetEnvironmentVariables(variables);
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_EQ(variables.empty(), faults.Fired());
    return faults.Fired();
  });
}

TEST_F(ProcessObjectFaults, TheOperationsOfAControlNeedNoMemory) {
  using namespace process_manager;
  zym::intrusive_ptr<IProcessControl> control;
  ASSERT_EQ(m_manager->GetControl(m_pid, control.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessAttributes> attributes;
  ASSERT_EQ(zym::QueryInterface(control, attributes.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessInformation> information;
  ProcessTimes times;
  ProcessIoCounters counters;
  std::uint32_t flags = 0;
  HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
  const zym::result_t results[] = {
      control->GetInformation(information.Ref()),
      control->GetTimes(times),
      control->GetIoCounters(counters),
      attributes->GetAttributeFlags(flags),
      attributes->UpdateAttributeFlags(1, 2),
      control->Terminate(),
      control->TerminateAndWait(0),
  };
  faults.End();
  for (const zym::result_t result : results) EXPECT_EQ(result, zym::ZYM_OK) << std::hex << result;
}

// A hit is asked for at each event: one allocation is the object's, and the others are those of a copy of the
// record.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // a sanitizer's malloc isn't counted
TEST_F(ProcessObjectFaults, ALookupThatHitsTheCacheAllocatesForItsResultAlone) {
  LearnTheProcess();
  m_faultHost.host.tracer->RefuseRecords(zym::ZYM_E_NOT_MATCHED);
  const auto count = [](auto operation) {
    HeapFaults counted(Threads::kThis);
    operation();
    counted.End();
    return counted.Calls();
  };
  qor::process_manager::process_cache::ProcessInformation known;
  ASSERT_TRUE(m_faultHost.cache->Get(static_cast<pid_t>(m_pid), known));
  const std::uint64_t ofARecord = count([&] { const auto copy = known; });
  EXPECT_GE(ofARecord, 1U) << "the path of the image";
  zym::intrusive_ptr<process_manager::IProcessInformation> information;
  EXPECT_EQ(count([&] { m_manager->GetInformation(m_pid, information.Ref()); }), ofARecord + 1);
  EXPECT_EQ(count([&] { m_manager->GetInformationByUniqueId(m_uniquePid, information.Ref()); }),
            ofARecord + 1);
  ASSERT_TRUE(information);
}
#endif

TEST_F(ProcessObjectFaults, ManyFailuresKeepNothing) {
  ExpectNothingIsKept([this] {
    LearnTheProcess();
    for (std::uint64_t call = 0; call < 20; ++call) {
      const HeapFaults faults(Threads::kThis, Failing::kOnce, call);
      zym::intrusive_ptr<process_manager::IProcessControl> control;
      m_manager->GetControl(m_pid, control.Ref());
      zym::intrusive_ptr<process_manager::IProcessInformationEnumerator> snapshot;
      m_manager->Enumerate(snapshot.Ref());
    }
    m_faultHost.host.tracer->Clear();
  });
}

// --- filters
// --------------------------------------------------------------------------------------------------

class Handler : public zym::object::Ifaces<event_processing::INonBlockingEventHandler> {
 public:
  void OnEvent(qor::process_manager::ISystemEvent*, std::uint32_t) override {}
};

// One interceptor for each shortage: its tables have no room to spare.
struct Facade {
  Facade() { EXPECT_EQ(host.CreateInterceptor(interceptor), zym::ZYM_OK); }

  // 1: enabled, 0: disabled, -1: there is none.
  int Status(std::uint32_t id) const {
    bool enabled = false;
    return interceptor->GetFilterStatus(id, &enabled) == zym::ZYM_OK ? enabled : -1;
  }

  FaultHost host;
  zym::intrusive_ptr<interceptor_facade::IInterceptor2> interceptor;
};

TEST(MemoryFaults, AFilterIsRegisteredOrRefusedWithItsIdWritten) {
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    const Facade facade;
    const auto handler = zym::CreateObject<Handler>();
    std::uint32_t id = 0xffffffff;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = facade.interceptor->RegisterNonBlockingFilterAttachHandler(
        {.type = event_type::kCreateProcess}, true, 0, handler.get(), &id);
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_NE(id, 0xffffffffU);
    EXPECT_EQ(facade.Status(id), faults.Fired() ? -1 : 1);
    EXPECT_EQ(handler->AddRef(), faults.Fired() ? 2U : 3U);
    handler->Release();
    std::uint32_t next = 0;
    EXPECT_EQ(facade.interceptor->RegisterFilter({.type = event_type::kExitProcess}, true, 0, &next),
              zym::ZYM_OK);
    EXPECT_EQ(next, id + 1);
    return faults.Fired();
  });
}

TEST(MemoryFaults, FiltersAreDeletedAllOrNone) {
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    const Facade facade;
    const auto handler = zym::CreateObject<Handler>();
    std::vector<unsigned int> ids(5);
    for (unsigned int& id : ids)
      EXPECT_EQ(facade.interceptor->RegisterNonBlockingFilterAttachHandler(
                    {.type = event_type::kCreateProcess}, true, 0, handler.get(), &id),
                zym::ZYM_OK);
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = facade.interceptor->DeleteFilters({ids.data(), ids.data() + ids.size()});
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    for (const unsigned int id : ids) EXPECT_EQ(facade.Status(id), faults.Fired() ? 1 : -1);
    EXPECT_EQ(handler->AddRef(), faults.Fired() ? 7U : 2U) << "the handlers are where they were";
    handler->Release();
    EXPECT_EQ(facade.interceptor->DeleteFilters({ids.data(), ids.data() + ids.size()}), zym::ZYM_OK);
    return faults.Fired();
  });
}

TEST(MemoryFaults, TheOtherOperationsOnFiltersNeedNoMemory) {
  const Facade facade;
  const auto handler = zym::CreateObject<Handler>();
  unsigned int id = 0;
  ASSERT_EQ(facade.interceptor->RegisterFilter({.type = event_type::kCreateProcess}, true, 0, &id),
            zym::ZYM_OK);
  const interceptor_facade::FilterIds ids{&id, &id + 1};
  HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
  const zym::result_t results[] = {
      facade.interceptor->AttachHandler(id, handler.get()),
      facade.interceptor->DisableFilters(ids),
      facade.interceptor->EnableFilters(ids),
      facade.interceptor->EnableDisableFilters({}, ids),
      facade.interceptor->DetachHandler(id),
  };
  faults.End();
  for (const zym::result_t result : results) EXPECT_EQ(result, zym::ZYM_OK);
}

// --- the source
// -----------------------------------------------------------------------------------------------

class NetlinkMemoryFaults : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the proc connector needs CAP_NET_ADMIN: run as root";
  }
};

TEST_F(NetlinkMemoryFaults, AStartSucceedsOrFailsAndAStopClearsTheWay) {
  const Facade facade;
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
  ASSERT_EQ(zym::QueryInterface(facade.interceptor, control.Ref()), zym::ZYM_OK);
  constexpr std::uint32_t kType = non_blocking_type::kNetlink | non_blocking_type::kFullProcessInfo;
  ASSERT_EQ(control->EnableNonBlockingInterceptor(kType), zym::ZYM_OK);
  ASSERT_EQ(control->DisableNonBlockingInterceptor(kType), zym::ZYM_OK);
  const auto descriptors = OpenDescriptors();
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    facade.host.host.tracer->Clear();
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = control->EnableNonBlockingInterceptor(kType);
    faults.End();
    if (faults.Fired()) {
      // The socket and the thread fail as the system says it: 0x8006000b is EAGAIN of pthread_create(3).
      EXPECT_TRUE(IsOneOf(result, {zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_UNSPECIFIED,
                                   static_cast<zym::result_t>(0x8006000bU)}))
          << std::hex << result;
      EXPECT_TRUE(facade.host.host.tracer->Has(300, "(m_nonBlockingInterceptor->Start(type))"));
    } else {
      EXPECT_EQ(result, zym::ZYM_OK);
    }
    EXPECT_EQ(control->DisableNonBlockingInterceptor(kType), zym::ZYM_OK);
    EXPECT_TRUE(ThreadsNamed("vornPrcMonPoll").empty());
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(control->EnableNonBlockingInterceptor(kType), zym::ZYM_OK);
    EXPECT_TRUE(Eventually([] { return ThreadsNamed("vornPrcMonPoll").size() == 1; }));
    EXPECT_EQ(control->DisableNonBlockingInterceptor(kType), zym::ZYM_OK);
    return faults.Fired();
  });
}

TEST_F(NetlinkMemoryFaults, AStopNeedsNoMemory) {
  const Facade facade;
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
  ASSERT_EQ(zym::QueryInterface(facade.interceptor, control.Ref()), zym::ZYM_OK);
  const auto descriptors = OpenDescriptors();
  ASSERT_EQ(control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
  HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
  const zym::result_t result = control->DisableNonBlockingInterceptor(non_blocking_type::kNetlink);
  faults.End();
  EXPECT_EQ(result, zym::ZYM_OK);
  // The thread that polls may have failed to read a process of the machine that ended early.
  for (const TraceRecord& record : facade.host.host.tracer->Records())
    EXPECT_FALSE(record.level == 300 && record.thread == std::this_thread::get_id()) << record.text;
  EXPECT_TRUE(ThreadsNamed("vornPrcMonPoll").empty());
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

// --- events
// ---------------------------------------------------------------------------------------------------

// A child that takes each step when it is told to: it is forked, becomes another program, and ends.
class SteppedChild {
 public:
  SteppedChild() {
    int step[2];
    int end[2];
    EXPECT_EQ(::pipe2(step, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(end, O_CLOEXEC), 0);
    m_pid = ::fork();
    if (m_pid == 0) {
      char byte = 0;
      ::dup2(end[0], STDIN_FILENO);  // which the new program waits on
      ::close(step[1]);
      ::close(end[1]);
      if (::read(step[0], &byte, 1) != 0) ::_exit(1);
      const char* const environment[] = {"NAME=a value that is too long for a string of its own", nullptr};
      ::execle("/bin/cat", "cat", nullptr, environment);
      ::_exit(1);
    }
    ::close(step[0]);
    ::close(end[0]);
    m_step.Reset(step[1]);
    m_end.Reset(end[1]);
  }
  ~SteppedChild() { End(); }

  [[nodiscard]] pid_t Pid() const { return m_pid; }
  void Execute() { m_step.Reset(); }
  void End() {
    Execute();
    m_end.Reset();
    if (m_pid > 0) ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }

 private:
  pid_t m_pid = -1;
  UniqueFd m_step;
  UniqueFd m_end;
};

// Counts the events of the process that the test looks at.
class LifeHandler : public zym::object::Ifaces<event_processing::INonBlockingEventHandler> {
 public:
  void OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t) override {
    const HostsOwnMemory own;
    const std::scoped_lock lock(m_mutex);
    ++m_events[event->GetPid()];
    zym::types::range_t<const std::uint8_t*> path;
    event->GetParam(event_param::kImagePath, &path);
    constexpr std::u16string_view kProgram = u"/cat";
    const std::u16string_view seen(reinterpret_cast<const char16_t*>(path.begin()),
                                   path.size() / sizeof(char16_t));
    if (event->GetType() == event_type::kExitProcess && seen.ends_with(kProgram))
      m_ended.insert(event->GetPid());
  }

  std::size_t EventsOf(pid_t pid) const {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_events.find(static_cast<std::uint32_t>(pid));
    return found != m_events.end() ? found->second : 0;
  }
  // The end of the program that the process became was told.
  bool HasEnded(pid_t pid) const {
    const std::scoped_lock lock(m_mutex);
    return m_ended.contains(static_cast<std::uint32_t>(pid));
  }

 private:
  mutable std::mutex m_mutex;  // guards all below
  std::map<std::uint32_t, std::size_t> m_events;
  std::set<std::uint32_t> m_ended;
};

class EventMemoryFaults : public NetlinkMemoryFaults {
 protected:
  void SetUp() override {
    NetlinkMemoryFaults::SetUp();
    if (IsSkipped()) return;
    ASSERT_EQ(zym::QueryInterface(m_facade.interceptor, m_control.Ref()), zym::ZYM_OK);
    for (const std::uint32_t type : {event_type::kCreateProcess, event_type::kExitProcess}) {
      std::uint32_t id = 0;
      ASSERT_EQ(m_facade.interceptor->RegisterNonBlockingFilterAttachHandler({.type = type}, true, 0,
                                                                             m_handler.get(), &id),
                zym::ZYM_OK);
    }
    constexpr std::uint32_t kType = non_blocking_type::kNetlink | non_blocking_type::kFullProcessInfo;
    ASSERT_EQ(m_control->EnableNonBlockingInterceptor(kType), zym::ZYM_OK);
  }

  std::size_t EventsOf(pid_t pid) const { return m_handler->EventsOf(pid); }
  bool HasEnded(pid_t pid) const { return m_handler->HasEnded(pid); }

  // On a busy machine the kernel may drop events before they are read: that round tells nothing.
  bool Dropped() const { return m_facade.host.host.tracer->Has(300, "Error on recv() from netlink socket"); }

  // The whole life of one child; gives its pid.
  pid_t Live(const HeapFaults* faults = nullptr) const {
    const auto fired = [&] { return Dropped() || (faults != nullptr && faults->Fired()); };
    SteppedChild child;
    const pid_t pid = child.Pid();
    EXPECT_TRUE(Eventually([&] { return m_facade.host.children->HasForked(pid) || fired(); }));
    child.Execute();
    EXPECT_TRUE(Eventually([&] { return m_facade.host.children->HasExecuted(pid) || fired(); }));
    child.End();
    return pid;
  }
  // The same with memory enough: all four events of it come.
  void ExpectAHealthyLife() const {
    const pid_t pid = Live();
    EXPECT_TRUE(Eventually([&] { return HasEnded(pid) || Dropped(); }));
    if (!Dropped()) {
      EXPECT_EQ(EventsOf(pid), 4U);
    }
  }

  // Whether an allocation failed; null: it isn't known, as events were dropped.
  std::optional<bool> LiveThrough(Shortage shortage) const {
    RecordingTracer& tracer = *m_facade.host.host.tracer;
    tracer.Clear();
    HeapFaults faults(Threads::kOthers, shortage.failing, shortage.call);
    const pid_t pid = Live(&faults);
    // The last event may be on its way still: the failure has come, or comes no more.
    EXPECT_TRUE(Eventually([&] { return HasEnded(pid) || faults.Fired() || Dropped(); }));
    faults.End();
    ExpectAHealthyLife();
    if (Dropped()) return std::nullopt;
    if (!faults.Fired()) {
      EXPECT_EQ(EventsOf(pid), 4U);
    } else if (EventsOf(pid) < 4) {
      EXPECT_TRUE(tracer.Has(300, "std::bad_alloc") || tracer.Has(300, "Out of memory"))
          << "an event was lost without a word";
    }
    return faults.Fired();
  }

  Facade m_facade;
  zym::intrusive_ptr<LifeHandler> m_handler = zym::CreateObject<LifeHandler>();
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> m_control;
};

// A fork, an execution and an end pass through the reader of /proc, the cache, the factory, the queue and the
// filters. Whatever allocation fails on the way, an event comes, or is lost with a trace that says so, and
// the next process is told whole.
TEST_F(EventMemoryFaults, AnEventComesOrIsLostWithATraceWhateverAllocationFails) {
  ExpectAHealthyLife();
  // A sanitized process is slow to fork.
  const std::uint64_t stride = HeapFaults::SeesAll() ? 1 : 9;
  AtEachAllocation(
      [&](Shortage shortage) {
        SCOPED_TRACE(shortage);
        std::optional<bool> fired;
        for (int attempt = 0; !fired && attempt < 100 && !HasFailure(); ++attempt)
          fired = LiveThrough(shortage);
        EXPECT_TRUE(fired.has_value()) << "events were dropped each time";
        return fired.value_or(false);
      },
      stride);
}

TEST(MemoryFaults, AWholeRunWithFailuresInItKeepsNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "the proc connector needs CAP_NET_ADMIN: run as root";
  ExpectNothingIsKept([] {
    const Facade facade;
    zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
    ASSERT_EQ(zym::QueryInterface(facade.interceptor, control.Ref()), zym::ZYM_OK);
    const auto handler = zym::CreateObject<LifeHandler>();
    std::uint32_t id = 0;
    ASSERT_EQ(facade.interceptor->RegisterNonBlockingFilterAttachHandler({.type = event_type::kExitProcess},
                                                                         true, 0, handler.get(), &id),
              zym::ZYM_OK);
    ASSERT_EQ(control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
    const std::uint64_t stride = HeapFaults::SeesAll() ? 1 : 9;
    for (std::uint64_t call = 0; call < 20; call += stride) {
      const HeapFaults faults(Threads::kOthers, Failing::kOnce, call);
      SteppedChild child;
      EXPECT_TRUE(Eventually([&] { return facade.host.children->Has(child.Pid()); }));
    }
  });
}

}  // namespace
