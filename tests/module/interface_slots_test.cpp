// The order of operations in every interface that a host calls: each operation is called through its slot, as
// a host does that was built by another compiler from the same declarations.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
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
#include "support/fake_exclusions.h"
#include "support/fake_process_control.h"

namespace {

using namespace test_support;
using qor::process_manager::InterceptorSettings;
using qor::process_manager::process_cache::EventInfo;
using qor::process_manager::process_cache::ProcessInformation;
using Result = zym::result_t;
namespace event_type = system_interceptors::event_type;
namespace facade = system_interceptors::interceptor_facade;
namespace process = system_interceptors::process_manager;

// Calls slot `slot` of the interface at `object`.
template <class R, class... Args>
R CallSlot(void* object, std::size_t slot, Args... args) {
  using Operation = R (*)(void*, Args...);
  auto* const* const table = *static_cast<void* const**>(object);
  Operation operation = nullptr;
  void* const entry = table[slot];
  std::memcpy(&operation, &entry, sizeof(operation));
  return operation(object, args...);
}

class InterfaceSlots : public testing::Test {
 protected:
  void* Query(zym::IObject* object, zym::iid_t iid) {
    void* found = nullptr;
    EXPECT_EQ(CallSlot<Result>(object, 2, iid, &found), zym::ZYM_OK);
    EXPECT_GE(CallSlot<std::uint32_t>(found, 1), 1U) << "Release";
    return found;  // kept alive by `object`
  }

  void* Facade(zym::iid_t iid) {
    if (!m_interceptor) {
      EXPECT_EQ(m_host.CreateInterceptor(m_interceptor), zym::ZYM_OK);
    }
    return Query(m_interceptor.get(), iid);
  }
  bool Traced(const std::string& text) const { return m_host.host.tracer->Has(text); }
  bool TracedAnew(const std::string& text) {
    const bool found = Traced(text);
    m_host.host.tracer->Clear();
    return found;
  }

  ModuleHost m_host;
  zym::intrusive_ptr<facade::IInterceptor2> m_interceptor;
};

TEST_F(InterfaceSlots, OfAnyObject) {
  void* const object = m_host.parser.get();
  const auto count = CallSlot<std::uint32_t>(object, 0);
  EXPECT_EQ(CallSlot<std::uint32_t>(object, 0), count + 1) << "0 adds a reference";
  EXPECT_EQ(CallSlot<std::uint32_t>(object, 1), count) << "1 releases it";
  EXPECT_EQ(CallSlot<std::uint32_t>(object, 1), count - 1);
  void* found = nullptr;
  EXPECT_EQ(CallSlot<Result>(object, 2, zym::iid_t{0}, &found), zym::ZYM_OK);
  EXPECT_EQ(CallSlot<std::uint32_t>(found, 1), count - 1);
}

TEST_F(InterfaceSlots, OfAFactory) {
  zym::intrusive_ptr<zym::IObjectFactory> factory;
  ASSERT_EQ(
      m_host.module.getObjectFactory(m_host.host.locator.get(), qor::class_ids::kProcParser, factory.Ref()),
      zym::ZYM_OK);
  void* made = nullptr;
  EXPECT_EQ(CallSlot<Result>(factory.get(), 3, m_host.host.locator.get(), zym::iid_t{0xc9b36ad4}, &made),
            zym::ZYM_OK);
  ASSERT_NE(made, nullptr);
  CallSlot<std::uint32_t>(made, 1);
}

TEST_F(InterfaceSlots, OfTheFacadesFilters) {
  void* const object = Facade(0x49b85a1b);
  EXPECT_EQ(object, Facade(0xde7726f2)) << "one run of operations serves both interfaces";
  const facade::FilterDescriptor create{.type = event_type::kCreateProcess};
  const auto handler = zym::CreateObject<RecordingHandler>();
  system_interceptors::event_processing::INonBlockingEventHandler* const rawHandler = handler.get();
  void* const none = nullptr;
  using U32 = std::uint32_t;

  EXPECT_EQ(CallSlot<Result>(object, 3), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_TRUE(TracedAnew("GetOfflineLog is not implemented yet"));

  U32 refused = 0xffffffff;
  EXPECT_EQ(CallSlot<Result>(object, 4, &create, true, U32{1}, U32{2}, none, &refused),
            zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_TRUE(
      TracedAnew("RegisterBlockingFilterAttachHandler() true, h: false, func: create_process, "
                 "flags: 1, timeout: 2, id: " +
                 std::to_string(refused)));

  U32 id = 0xffffffff;
  EXPECT_EQ(CallSlot<Result>(object, 5, &create, false, U32{3}, rawHandler, &id), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew(
      "RegisterNonBlockingFilterAttachHandler() false, h: true, func: create_process, flags: 3, id: " +
      std::to_string(id)));

  U32 inert = 0xffffffff;
  EXPECT_EQ(CallSlot<Result>(object, 6, &create, true, U32{4}, &inert), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("RegisterFilter() true, h: false, func: create_process, flags: 4, id: " +
                         std::to_string(inert)));

  const facade::FilterIds ids{&id, &id + 1};
  const auto status = [&](U32 filter) {
    bool enabled = false;
    const auto result = CallSlot<Result>(object, 14, filter, &enabled);
    return result == zym::ZYM_OK ? static_cast<int>(enabled) : -1;
  };
  EXPECT_EQ(status(id), 0) << "14 tells the status";
  EXPECT_EQ(CallSlot<Result>(object, 8, ids), zym::ZYM_OK);
  EXPECT_EQ(status(id), 1) << "8 enables";
  EXPECT_EQ(CallSlot<Result>(object, 9, ids), zym::ZYM_OK);
  EXPECT_EQ(status(id), 0) << "9 disables";
  m_host.host.tracer->Clear();
  EXPECT_EQ(CallSlot<Result>(object, 10), zym::ZYM_OK);
  EXPECT_TRUE(m_host.host.tracer->Records().empty()) << "10 does nothing";

  EXPECT_EQ(CallSlot<Result>(object, 11, inert, rawHandler), zym::ZYM_OK);
  EXPECT_EQ(handler->AddRef(), 4U) << "11 attaches";
  handler->Release();
  EXPECT_EQ(CallSlot<Result>(object, 12, inert), zym::ZYM_OK);
  EXPECT_EQ(handler->AddRef(), 3U) << "12 detaches";
  handler->Release();

  const facade::FilterIds others{&inert, &inert + 1};
  EXPECT_EQ(CallSlot<Result>(object, 13, ids, others), zym::ZYM_OK);
  EXPECT_EQ(status(id), 1) << "13 enables the first";
  EXPECT_EQ(status(inert), 0) << "and disables the second";

  EXPECT_EQ(CallSlot<Result>(object, 7, ids), zym::ZYM_OK);
  EXPECT_EQ(status(id), -1) << "7 deletes";
}

TEST_F(InterfaceSlots, OfTheFacadesSources) {
  void* const object = Facade(0xdae40c14);
  EXPECT_EQ(CallSlot<Result>(object, 3), zym::ZYM_E_NOT_SUPPORTED);
  EXPECT_EQ(CallSlot<Result>(object, 4), zym::ZYM_E_NOT_SUPPORTED);
  m_host.host.tracer->Clear();
  EXPECT_EQ(CallSlot<Result>(object, 5, std::uint32_t{8}), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("StartImpl() type: ConsoleInput"));
  EXPECT_EQ(CallSlot<Result>(object, 6, std::uint32_t{8}), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("StopImpl() type: ConsoleInput"));
  for (const std::size_t slot : {7, 8, 9, 10})
    EXPECT_EQ(CallSlot<Result>(object, slot), zym::ZYM_E_NOT_SUPPORTED) << slot;
}

class Subscriber : public zym::object::Ifaces<qor::process_manager::IInterceptorSettings> {
 public:
  Result OnInterceptorSettingsChanged(const InterceptorSettings& settings) override {
    counts.push_back(settings.excluded.size());
    return zym::ZYM_OK;
  }
  std::vector<std::size_t> counts;
};

TEST_F(InterfaceSlots, OfTheSettings) {
  const auto subscriber = zym::CreateObject<Subscriber>();
  qor::process_manager::IInterceptorSettings* const raw = subscriber.get();
  void* const subscription = m_host.settings.get();
  void* const holder = Query(m_host.settings.get(), 0xf62878be);
  EXPECT_EQ(CallSlot<Result>(subscription, 3, raw), zym::ZYM_OK);
  InterceptorSettings settings;
  settings.excluded.resize(2);
  EXPECT_EQ(CallSlot<Result>(holder, 3, static_cast<const InterceptorSettings*>(&settings)), zym::ZYM_OK);
  EXPECT_EQ(CallSlot<Result>(subscription, 4, raw), zym::ZYM_OK);
  EXPECT_EQ(CallSlot<Result>(subscription, 4, raw), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(subscriber->counts, (std::vector<std::size_t>{0, 2}));
  InterceptorSettings out;
  EXPECT_EQ(CallSlot<Result>(holder, 4, &out), zym::ZYM_OK);
  EXPECT_EQ(out.excluded.size(), 2U);
}

TEST_F(InterfaceSlots, OfTheMetaInformation) {
  zym::intrusive_ptr<zym::IMetaInfoProvider> provider;
  ASSERT_EQ(
      m_host.module.Make(qor::class_ids::kTypeDescriptorStaticRegistry, m_host.host.locator.get(), provider),
      zym::ZYM_OK);
  void* const object = provider.get();
  void* const structs = Query(provider.get(), 0xfe7da4e6);
  constexpr std::uint32_t kId = 0x50058721;
  zym::types::vector_t<std::uint32_t> ids;
  EXPECT_EQ(CallSlot<Result>(object, 3, &ids), zym::ZYM_OK);
  ASSERT_EQ(ids.size(), 1U);
  EXPECT_EQ(ids[0], kId);
  const zym::ISerObjDescriptor* descriptor = nullptr;
  EXPECT_EQ(CallSlot<Result>(object, 4, kId, &descriptor), zym::ZYM_OK);
  const zym::ISerObjDescriptor* byId = nullptr;
  EXPECT_EQ(CallSlot<Result>(object, 7, kId, &byId), zym::ZYM_OK);
  EXPECT_EQ(byId, descriptor);
  for (const std::size_t slot : {5, 6, 8, 9})
    EXPECT_EQ(CallSlot<Result>(object, slot), zym::ZYM_E_NOT_IMPLEMENTED) << slot;
  const zym::ISerObjDescriptor* ofStructs = nullptr;
  EXPECT_EQ(CallSlot<Result>(structs, 3, kId, &ofStructs), zym::ZYM_OK);
  EXPECT_EQ(ofStructs, descriptor);
  for (const std::size_t slot : {4, 5})
    EXPECT_EQ(CallSlot<Result>(structs, slot), zym::ZYM_E_NOT_IMPLEMENTED) << slot;

  // The descriptor, which is no object: its operations begin at slot 0.
  void* const raw = const_cast<zym::ISerObjDescriptor*>(descriptor);
  InterceptorSettings source;
  source.excluded.emplace_back("/a");
  void* const created = CallSlot<void*>(raw, 1, static_cast<const void*>(&source),
                                        static_cast<zym::IAllocator*>(m_host.host.allocator.get()));
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(static_cast<InterceptorSettings*>(created)->excluded.size(), 1U);
  CallSlot<void>(raw, 2, created);
  EXPECT_EQ(CallSlot<Result>(raw, 0, created, static_cast<const void*>(nullptr)), zym::ZYM_OK);
  EXPECT_TRUE(static_cast<InterceptorSettings*>(created)->excluded.empty());
  EXPECT_EQ(CallSlot<Result>(raw, 3, static_cast<const void*>(&source), created), zym::ZYM_OK);
  EXPECT_EQ(source.excluded.size(), 1U);
  EXPECT_EQ(CallSlot<Result>(raw, 4, static_cast<void*>(&source), created), zym::ZYM_OK);
  EXPECT_TRUE(source.excluded.empty());
  CallSlot<void>(raw, 2, created);
  m_host.host.allocator->Free(created);
}

TEST_F(InterfaceSlots, OfTheApplications) {
  namespace applications = system_interceptors::application_manager_facade;
  zym::intrusive_ptr<applications::IApplicationManager> manager;
  ASSERT_EQ(m_host.module.Make(qor::class_ids::kApplicationManager, m_host.host.locator.get(), manager),
            zym::ZYM_OK);
  void* const object = manager.get();
  const std::uint32_t id = 42;
  void* application = nullptr;
  EXPECT_EQ(CallSlot<Result>(object, 3, &id, std::uint32_t{1}, &application), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("ApplicationManager::CreateApplication("));
  void* opened = nullptr;
  EXPECT_EQ(CallSlot<Result>(object, 5, &id, &opened), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("ApplicationManager::OpenApplication("));
  EXPECT_EQ(opened, application);
  CallSlot<std::uint32_t>(opened, 1);
  EXPECT_EQ(CallSlot<Result>(object, 4, &id), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("ApplicationManager::DeleteApplication("));

  void* none = nullptr;
  EXPECT_EQ(CallSlot<Result>(application, 3, &none), zym::ZYM_E_NO_INTERFACE) << "none is registered";
  EXPECT_TRUE(TracedAnew("Cannot get si_if::IInterceptor interface"));
  EXPECT_EQ(CallSlot<std::uint32_t>(application, 1), 0U) << "the manager has let it go";
}

TEST_F(InterfaceSlots, OfTheMapperOfFileNames) {
  zym::intrusive_ptr<system_interceptors::file_name_mapper::IFileNameMapper> mapper;
  ASSERT_EQ(m_host.module.Make(qor::class_ids::kFileNameMapper, m_host.host.locator.get(), mapper),
            zym::ZYM_OK);
  void* const first = mapper.get();
  void* const second = Query(mapper.get(), 0x32dda863);
  void* const third = Query(mapper.get(), 0xde5b3c97);
  const char16_t* const name = u"/a/../b";
  const zym::types::string16_t text = name;
  zym::types::string16_t out;
  const auto taken = [&out] { return std::exchange(out, {}); };

  EXPECT_EQ(CallSlot<Result>(first, 3, &text, &out), zym::ZYM_OK);
  EXPECT_EQ(taken(), name);
  EXPECT_EQ(CallSlot<Result>(first, 4, name, &out), zym::ZYM_OK);
  EXPECT_EQ(taken(), name);
  EXPECT_EQ(CallSlot<Result>(first, 5, name, &out), zym::ZYM_OK);
  EXPECT_EQ(taken(), u"/b") << "5 normalises";

  const std::u16string_view range(name, 5);
  EXPECT_EQ(CallSlot<Result>(second, 3, range, &out), zym::ZYM_OK);
  EXPECT_EQ(taken(), u"/a/..");
  EXPECT_EQ(CallSlot<Result>(second, 4, range, &out, std::uint32_t{0}), zym::ZYM_OK);
  EXPECT_EQ(taken(), u"/a/..");
  EXPECT_EQ(CallSlot<Result>(second, 4, range, &out, std::uint32_t{1}), zym::ZYM_OK);
  EXPECT_EQ(taken(), u"/") << "mode 1 normalises";

  EXPECT_EQ(CallSlot<Result>(third, 3, name, &out), zym::ZYM_OK);
  EXPECT_EQ(taken(), name);
  EXPECT_EQ(CallSlot<Result>(third, 4, std::uint64_t{7}, name, &out), zym::ZYM_OK);
  EXPECT_EQ(taken(), name);
  EXPECT_EQ(CallSlot<Result>(third, 5, name, &out), zym::ZYM_OK);
  EXPECT_EQ(taken(), name);
}

TEST_F(InterfaceSlots, OfTheUsersLanguage) {
  m_host.host.startupData->data.localization = u"tlh";
  zym::intrusive_ptr<qor::process_manager::IProcessUserLocalizationProvider> languages;
  ASSERT_EQ(m_host.module.Make(qor::class_ids::kProcessUserLocalizationProvider, m_host.host.locator.get(),
                               languages),
            zym::ZYM_OK);
  zym::types::string16_t localization;
  EXPECT_EQ(CallSlot<Result>(languages.get(), 3, qor::PidType{4'194'305}, &localization), zym::ZYM_OK);
  EXPECT_EQ(localization, u"tlh") << "nobody has this pid";
}

TEST_F(InterfaceSlots, OfTheReaderOfProc) {
  namespace procfs = qor::procfs;
  void* const object = m_host.parser.get();
  const auto self = static_cast<qor::PidType>(::getpid());

  procfs::Stat stat;
  EXPECT_EQ(CallSlot<Result>(object, 3, self, &stat), zym::ZYM_OK);
  EXPECT_EQ(stat.ppid, static_cast<std::uint32_t>(::getppid()));
  procfs::IOCounters counters;
  EXPECT_EQ(CallSlot<Result>(object, 4, self, &counters), zym::ZYM_OK);
  EXPECT_GT(counters.syscr, 0U);
  const qor::NativePath name = "cwd";
  qor::NativePath path;
  EXPECT_EQ(CallSlot<Result>(object, 5, self, &name, &path), zym::ZYM_OK);
  char buffer[4096];
  const std::string workingDirectory = ::getcwd(buffer, sizeof(buffer));
  EXPECT_EQ(path, workingDirectory);
  procfs::Maps maps;
  EXPECT_EQ(CallSlot<Result>(object, 6, self, &maps), zym::ZYM_OK);
  EXPECT_GT(maps.size(), 5U);
  zym::types::string16_t cmdline;
  EXPECT_EQ(CallSlot<Result>(object, 7, self, &cmdline), zym::ZYM_OK);
  EXPECT_NE(cmdline.find(u"module_tests"), zym::types::string16_t::npos);
  std::vector<unsigned int> pids;
  EXPECT_EQ(CallSlot<Result>(object, 8, &pids), zym::ZYM_OK);
  EXPECT_NE(std::find(pids.begin(), pids.end(), self), pids.end());
  std::vector<unsigned int> byRelevance;
  EXPECT_EQ(CallSlot<Result>(object, 9, &byRelevance), zym::ZYM_OK);
  EXPECT_NE(std::find(byRelevance.begin(), byRelevance.end(), self), byRelevance.end());
  procfs::IOMemMap memory;
  const auto memoryResult = CallSlot<Result>(object, 10, &memory);
  EXPECT_TRUE(memoryResult != zym::ZYM_OK || !memory.empty());
  EXPECT_EQ(CallSlot<Result>(object, 11, self, &path), zym::ZYM_OK);
  EXPECT_NE(path.find("/module_tests"), qor::NativePath::npos);
  std::vector<unsigned int> fds;
  EXPECT_EQ(CallSlot<Result>(object, 12, self, &fds), zym::ZYM_OK);
  EXPECT_NE(std::find(fds.begin(), fds.end(), 2U), fds.end());
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  procfs::DescriptorInfo info;
  EXPECT_EQ(CallSlot<Result>(object, 13, self, static_cast<unsigned int>(ends[0]), &info), zym::ZYM_OK);
  EXPECT_EQ(info.fileType, 4U);
  ::close(ends[0]);
  ::close(ends[1]);
  procfs::ModulesList modules;
  const auto modulesResult = CallSlot<Result>(object, 14, &modules);
  EXPECT_TRUE(modulesResult != zym::ZYM_OK || m_host.host.tracer->OpenRecords() == 0);
  procfs::ModulesSections sections;
  const procfs::ModulesList noModules;
  EXPECT_EQ(CallSlot<Result>(object, 15, &noModules, &sections, std::uint64_t{0}), zym::ZYM_OK);
  EXPECT_TRUE(sections.empty());
  procfs::Creds creds;
  creds.uid[1] = 12345;
  EXPECT_EQ(CallSlot<Result>(object, 16, self, &creds), zym::ZYM_OK);
  EXPECT_EQ(creds.uid[1], ::geteuid());
  std::string value = "unset";
  EXPECT_EQ(CallSlot<Result>(object, 17, self, "NO_SUCH_VARIABLE_OF_THIS_TEST", &value), zym::ZYM_OK);
  EXPECT_EQ(value, "unset");
  qor::NativePath cwd;
  EXPECT_EQ(CallSlot<Result>(object, 18, self, &cwd), zym::ZYM_OK);
  EXPECT_EQ(cwd, workingDirectory);
  std::string comm;
  EXPECT_EQ(CallSlot<Result>(object, 19, self, &comm), zym::ZYM_OK);
  EXPECT_EQ(comm, "module_tests");
  zym::types::vector_t<zym::types::string_t> variables;
  EXPECT_EQ(CallSlot<Result>(object, 20, self, &variables), zym::ZYM_OK);
  EXPECT_FALSE(variables.empty());
  std::uint64_t mountNamespace = 0;
  EXPECT_EQ(CallSlot<Result>(object, 21, self, &mountNamespace), zym::ZYM_OK);
  EXPECT_NE(mountNamespace, 0U);
}

TEST_F(InterfaceSlots, OfTheMemoryOfAProcess) {
  namespace memory = system_interceptors::process_memory_manager;
  zym::intrusive_ptr<memory::IProcessMemoryFactory> factory;
  ASSERT_EQ(m_host.module.Make(qor::class_ids::kProcessMemoryFactory, m_host.host.locator.get(), factory),
            zym::ZYM_OK);
  const auto control = zym::CreateObject<FakeProcessControl>(static_cast<qor::PidType>(::getpid()));
  void* const rawControl = static_cast<system_interceptors::process_manager::IProcessControl*>(control.get());
  void* object = nullptr;
  ASSERT_EQ(CallSlot<Result>(factory.get(), 3, rawControl, &object), zym::ZYM_OK);
  const auto owner = zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(object));
  EXPECT_EQ(Query(owner.get(), 0xb3f8c301), object);

  memory::ProcessMemoryRegionInformation region;
  EXPECT_EQ(CallSlot<Result>(object, 4, std::uint64_t{0}, &region), zym::ZYM_OK);
  EXPECT_NE(region.baseAddress, 0U);
  zym::types::string16_t path;
  EXPECT_EQ(CallSlot<Result>(object, 5, region.baseAddress, &path), zym::ZYM_OK);
  const std::uint64_t value = 0x1122334455667788;
  std::uint64_t copy = 0;
  const zym::types::blob_range_t to{reinterpret_cast<std::uint8_t*>(&copy),
                                    reinterpret_cast<std::uint8_t*>(&copy + 1)};
  EXPECT_EQ(CallSlot<Result>(object, 6, reinterpret_cast<std::uint64_t>(&value), &to), zym::ZYM_OK);
  EXPECT_EQ(copy, value);
  EXPECT_EQ(CallSlot<Result>(object, 7, reinterpret_cast<std::uint64_t>(&value), &to),
            zym::ZYM_E_NOT_IMPLEMENTED);

  void* enumerator = nullptr;
  ASSERT_EQ(CallSlot<Result>(object, 3, &enumerator), zym::ZYM_OK);
  const auto enumeratorOwner =
      zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(enumerator));
  EXPECT_EQ(Query(enumeratorOwner.get(), 0x24d84ebc), enumerator);
  memory::ProcessMemoryRegionInformation first;
  memory::ProcessMemoryRegionInformation second;
  EXPECT_EQ(CallSlot<Result>(enumerator, 3, &first), zym::ZYM_OK);
  EXPECT_EQ(first.baseAddress, region.baseAddress);
  EXPECT_EQ(CallSlot<Result>(enumerator, 3, &second), zym::ZYM_OK);
  EXPECT_GT(second.baseAddress, first.baseAddress);
  EXPECT_EQ(CallSlot<Result>(enumerator, 4), zym::ZYM_OK);
  EXPECT_EQ(CallSlot<Result>(enumerator, 3, &second), zym::ZYM_OK);
  EXPECT_EQ(second.baseAddress, first.baseAddress);
}

TEST_F(InterfaceSlots, OfTheModulesOfAProcess) {
  zym::intrusive_ptr<process::IProcessModuleManager> manager;
  ASSERT_EQ(m_host.module.Make(qor::class_ids::kProcessModuleManager, m_host.host.locator.get(), manager),
            zym::ZYM_OK);
  const auto self = static_cast<qor::PidType>(::getpid());
  void* enumerator = nullptr;
  ASSERT_EQ(CallSlot<Result>(manager.get(), 3, self, &enumerator), zym::ZYM_OK);
  const auto enumeratorOwner =
      zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(enumerator));
  EXPECT_EQ(Query(enumeratorOwner.get(), 0xdd01a982), enumerator);
  void* listed = nullptr;
  ASSERT_EQ(CallSlot<Result>(enumerator, 3, &listed), zym::ZYM_OK);
  const auto listedOwner = zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(listed));
  EXPECT_EQ(Query(listedOwner.get(), 0x3557339b), listed);
  zym::types::string16_t path;
  EXPECT_EQ(CallSlot<Result>(listed, 3, &path), zym::ZYM_OK);
  EXPECT_NE(path.find(u"module_tests"), zym::types::string16_t::npos);
  std::uint64_t base = 0;
  EXPECT_EQ(CallSlot<Result>(listed, 4, &base), zym::ZYM_OK);
  std::uint64_t size = 0;
  EXPECT_EQ(CallSlot<Result>(listed, 5, &size), zym::ZYM_OK);
  EXPECT_NE(size, base);
  process::ProcessModuleInformation information;
  EXPECT_EQ(CallSlot<Result>(listed, 6, &information), zym::ZYM_OK);
  EXPECT_EQ(information.imagePath, path);
  EXPECT_EQ(information.baseAddress, base);
  EXPECT_EQ(information.size, size);

  EXPECT_EQ(CallSlot<Result>(enumerator, 4), zym::ZYM_OK);
  void* again = nullptr;
  ASSERT_EQ(CallSlot<Result>(enumerator, 3, &again), zym::ZYM_OK);
  const auto againOwner = zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(again));
  void* byAddress = nullptr;
  ASSERT_EQ(CallSlot<Result>(manager.get(), 4, self, static_cast<const std::uint64_t*>(&base), &byAddress),
            zym::ZYM_OK);
  const auto byAddressOwner = zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(byAddress));
  for (void* const module : {again, byAddress}) {
    std::uint64_t other = 0;
    EXPECT_EQ(CallSlot<Result>(module, 4, &other), zym::ZYM_OK);
    EXPECT_EQ(other, base);
  }
}

// The door to processes, and the objects behind it.
class ProcessSlots : public InterfaceSlots {
 protected:
  void SetUp() override {
    m_host.host.locator->Add(zym::CreateObject<FakeAppSettingsProvider>(), qor::IAppSettingsProvider::kIid);
    m_host.host.locator->Add(zym::CreateObject<FakePathMatcherFactory>(), qor::IPathMatcherFactory::kIid);
    ASSERT_EQ(m_host.module.Make(qor::class_ids::kProcessManager, m_host.host.locator.get(), m_manager),
              zym::ZYM_OK);
  }

  // What an operation of the manager in that slot gives.
  template <class Key>
  zym::intrusive_ptr<zym::IObject> Get(std::size_t slot, Key key) {
    void* found = nullptr;
    EXPECT_EQ(CallSlot<Result>(m_manager.get(), slot, key, &found), zym::ZYM_OK);
    return zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(found));
  }
  static process::ProcessInformation RecordOf(zym::IObject* information) {
    process::ProcessInformation record;
    EXPECT_EQ(CallSlot<Result>(information, 3, &record), zym::ZYM_OK);
    return record;
  }

  zym::intrusive_ptr<process::IProcessManager> m_manager;
  const qor::PidType m_self = static_cast<qor::PidType>(::getpid());
};

TEST_F(ProcessSlots, OfTheManagerOfProcesses) {
  const auto information = Get(4, m_self);
  const qor::UniquePidType uniquePid = RecordOf(information.get()).uniquePid;
  EXPECT_EQ(qor::PidOf(uniquePid), m_self);
  const auto byUniquePid = Get(5, static_cast<const qor::UniquePidType*>(&uniquePid));
  EXPECT_EQ(RecordOf(byUniquePid.get()).uniquePid, uniquePid);
  const auto control = Get(6, m_self);
  EXPECT_TRUE(TracedAnew("ProcessControl(" + std::to_string(m_self)));
  Query(control.get(), process::IProcessControl::kIid);
  const auto controlByUniquePid = Get(7, static_cast<const qor::UniquePidType*>(&uniquePid));
  EXPECT_TRUE(TracedAnew("ProcessControl(" + std::to_string(uniquePid)));
  Query(controlByUniquePid.get(), process::IProcessControl::kIid);

  void* found = nullptr;
  ASSERT_EQ(CallSlot<Result>(m_manager.get(), 3, &found), zym::ZYM_OK);
  const auto enumerator = zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(found));
  const auto next = [&] {
    void* listed = nullptr;
    EXPECT_EQ(CallSlot<Result>(enumerator.get(), 3, &listed), zym::ZYM_OK);
    return zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(listed));
  };
  const auto first = next();
  const auto second = next();
  EXPECT_NE(first, second);
  EXPECT_EQ(CallSlot<Result>(enumerator.get(), 4), zym::ZYM_OK);
  EXPECT_EQ(next(), first) << "4 goes back";
}

TEST_F(ProcessSlots, OfWhatIsKnownOfAProcess) {
  void* found = nullptr;
  ASSERT_EQ(CallSlot<Result>(m_manager.get(), 3, &found), zym::ZYM_OK);  // reads everything of each process
  const auto enumerator = zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(found));
  const auto information = Get(4, m_self);
  void* const posix = Query(information.get(), process::IPosixProcessInformation::kIid);
  EXPECT_EQ(Query(information.get(), process::IPosixProcessInformation2::kIid), posix)
      << "one run of operations serves both interfaces";
  using U32 = std::uint32_t;

  zym::types::vector_t<zym::types::string_t> variables;
  EXPECT_EQ(CallSlot<Result>(posix, 3, &variables), zym::ZYM_OK);
  EXPECT_FALSE(variables.empty());
  U32 id = 0xdead;
  zym::types::string_t name = "old";
  EXPECT_EQ(CallSlot<Result>(posix, 4, &id), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_EQ(CallSlot<Result>(posix, 5, &name), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_EQ(CallSlot<Result>(posix, 8, &name), zym::ZYM_E_NOT_IMPLEMENTED);
  const struct {
    std::size_t slot;
    const char* name;
    U32 expected;
  } kIds[] = {{6, "GetRealUserId() ", ::geteuid()},
              {7, "GetEffectiveUserId() ", ::geteuid()},
              {9, "GetRealGroupId() ", ::getgid()},
              {10, "GetEffectiveGroupId() ", ::getegid()}};
  for (const auto& of : kIds) {
    m_host.host.tracer->Clear();
    EXPECT_EQ(CallSlot<Result>(posix, of.slot, &id), zym::ZYM_OK);
    EXPECT_EQ(id, of.expected);
    EXPECT_TRUE(TracedAnew(of.name));
  }
  EXPECT_EQ(CallSlot<Result>(posix, 11), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("IsHostMountNamespace() <- 0"));
  std::uint64_t mountNamespace = 0;
  EXPECT_EQ(CallSlot<Result>(posix, 12, &mountNamespace), zym::ZYM_OK);
  EXPECT_NE(mountNamespace, 0U);
  EXPECT_TRUE(TracedAnew("GetMountNamespaceId() <- namespaceId=" + std::to_string(mountNamespace)));
}

TEST_F(ProcessSlots, OfTheControlOfAProcess) {
  Actor actor({"say", "wait"});
  const auto pid = static_cast<qor::PidType>(actor.HearPid());
  const auto owner = Get(6, pid);
  void* const control = Query(owner.get(), process::IProcessControl::kIid);
  void* const attributes = Query(owner.get(), process::IProcessAttributes::kIid);

  void* found = nullptr;
  ASSERT_EQ(CallSlot<Result>(control, 3, &found), zym::ZYM_OK);
  const auto information = zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(found));
  EXPECT_EQ(RecordOf(information.get()).pid, pid);
  zym::datetime_t time = 7;
  EXPECT_EQ(CallSlot<Result>(control, 4, &time), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_TRUE(TracedAnew("GetExitTime() <- not implemented"));
  process::ProcessTimes times{.kernelTime = 1, .userTime = 1};
  EXPECT_EQ(CallSlot<Result>(control, 5, &times), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("ProcessControl::GetTimes()"));
  EXPECT_EQ(times.userTime % 10'000'000, 0U);
  process::ProcessIoCounters counters;
  EXPECT_EQ(CallSlot<Result>(control, 6, &counters), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("ProcessControl::GetIoCounters("));
  EXPECT_GT(counters.readBytes, 0U);
  EXPECT_EQ(CallSlot<Result>(control, 7, static_cast<void*>(&times)), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_TRUE(TracedAnew("GetVmCounters() <- not implemented"));
  bool critical = true;
  EXPECT_EQ(CallSlot<Result>(control, 8, &critical), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_TRUE(TracedAnew("IsSystemCriticalProcess() <- not implemented, use SCO instead"));

  std::uint32_t flags = 0;
  EXPECT_EQ(CallSlot<Result>(attributes, 4, std::uint32_t{6}, std::uint32_t{1}), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("UpdateAttributeFlags() add=6, remove=1"));
  EXPECT_EQ(CallSlot<Result>(attributes, 3, &flags), zym::ZYM_OK);
  EXPECT_EQ(flags, 6U);

  EXPECT_EQ(CallSlot<Result>(control, 9), zym::ZYM_OK);
  EXPECT_TRUE(TracedAnew("Terminate() "));
  EXPECT_EQ(CallSlot<Result>(control, 10, 20U), zym::ZYM_OK) << "a zombie, or still on its way";
  EXPECT_TRUE(TracedAnew("TerminateAndWait() timeout=20"));
}

TEST_F(InterfaceSlots, OfTheCache) {
  void* const questions = m_host.cache.get();
  void* const reports = Query(m_host.cache.get(), 0x79864d30);
  constexpr qor::PidType kPid = 4'000'000;  // nobody's
  constexpr pid_t kSignedPid = 4'000'000;

  ProcessInformation known;
  known.pid = kPid;
  known.parentPid = kPid - 1;
  known.state = qor::kCreated;
  known.imagePath = u"/first";
  CallSlot<void>(questions, 5, &known);  // Update
  EXPECT_NE(known.uniquePid, 0U);
  ProcessInformation answer;
  EXPECT_TRUE(CallSlot<bool>(questions, 3, kSignedPid, &answer));
  EXPECT_EQ(answer.uniquePid, known.uniquePid);
  ProcessInformation byUniquePid;
  EXPECT_TRUE(CallSlot<bool>(questions, 4, qor::UniquePidType{known.uniquePid}, &byUniquePid));
  EXPECT_EQ(byUniquePid.pid, kPid);
  known.effectiveUserId = 77;
  EXPECT_TRUE(CallSlot<bool>(questions, 6, &known));  // UpdateAdditionalInfo
  EXPECT_TRUE(CallSlot<bool>(questions, 3, kSignedPid, &answer));
  EXPECT_EQ(answer.effectiveUserId, 77U);

  ProcessInformation child;
  child.pid = kPid + 1;
  child.parentPid = kPid;
  child.state = qor::kCreated;
  EventInfo create;
  CallSlot<void>(reports, 3, &child, &create);  // OnFork
  EXPECT_TRUE(create.isFork);
  EXPECT_EQ(create.info.pid, kPid + 1);

  ProcessInformation image;
  image.pid = kPid + 1;
  image.parentPid = kPid;
  image.state = qor::kCreated;
  image.imagePath = u"/second";
  EventInfo exitOfOld;
  EventInfo createOfNew;
  CallSlot<void>(reports, 4, &image, &exitOfOld, &createOfNew);  // OnExec
  EXPECT_EQ(exitOfOld.info.uniquePid, create.info.uniquePid);
  EXPECT_EQ(std::u16string_view(createOfNew.info.imagePath), u"/second");

  EventInfo completed = createOfNew;
  EXPECT_EQ(CallSlot<Result>(reports, 8, true, &completed), zym::ZYM_OK);  // OnCreateProcess
  CallSlot<void>(reports, 9, &exitOfOld);                                  // OnExitProcess

  CallSlot<void>(reports, 10, static_cast<pid_t>(kPid + 1), uid_t{5}, uid_t{6});  // OnUidChange
  CallSlot<void>(reports, 11, static_cast<pid_t>(kPid + 1), gid_t{7}, gid_t{8});  // OnGidChange
  EXPECT_TRUE(CallSlot<bool>(questions, 3, static_cast<pid_t>(kPid + 1), &answer));
  EXPECT_EQ(answer.realUserId, 5U);
  EXPECT_EQ(answer.effectiveUserId, 6U);
  EXPECT_EQ(answer.realGroupId, 7U);
  EXPECT_EQ(answer.effectiveGroupId, 8U);

  ProcessInformation asked = image;
  asked.imagePath = u"/third";
  EventInfo permExit;
  EventInfo permCreate;
  CallSlot<void>(reports, 6, &asked, &permExit, &permCreate);  // OnExecPerm
  EXPECT_EQ(std::u16string_view(permCreate.info.imagePath), u"/third");
  ProcessInformation denied = image;
  denied.imagePath = u"/third";
  EventInfo denyExit;
  EventInfo denyCreate;
  EventInfo forkExit;
  EventInfo forkCreate;
  CallSlot<void>(reports, 7, &denied, &denyExit, &denyCreate, &forkExit, &forkCreate);  // OnExecDeny
  EXPECT_EQ(denyExit.info.pid, kPid + 1);

  EventInfo exit;
  CallSlot<void>(reports, 5, static_cast<pid_t>(kPid + 1), &exit);  // OnExit
  EXPECT_EQ(exit.info.pid, kPid + 1);
  EXPECT_EQ(exit.info.state, qor::kTerminated);
}

// Keeps events, and gives the one of a process.
class KeepingHandler
    : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
 public:
  using EventPtr = zym::intrusive_ptr<qor::process_manager::ISystemEvent>;

  void OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t) override {
    const std::scoped_lock lock(m_mutex);
    m_events.emplace_back(event);
    m_arrived.notify_all();
  }
  EventPtr Wait(pid_t pid) {
    std::unique_lock lock(m_mutex);
    EventPtr found;
    m_arrived.wait_for(lock, std::chrono::seconds(30), [&] {
      for (const EventPtr& event : m_events)
        if (event->GetPid() == static_cast<qor::PidType>(pid)) found = event;
      return static_cast<bool>(found);
    });
    return found;
  }
  void Clear() {
    const std::scoped_lock lock(m_mutex);
    m_events.clear();
  }

 private:
  std::mutex m_mutex;  // guards m_events
  std::condition_variable m_arrived;
  std::vector<EventPtr> m_events;
};

TEST_F(InterfaceSlots, OfAnEvent) {
  if (::geteuid() != 0) GTEST_SKIP() << "the proc connector needs CAP_NET_ADMIN: run as root";
  const auto handler = zym::CreateObject<KeepingHandler>();
  Facade(0);
  std::uint32_t id = 0;
  ASSERT_EQ(m_interceptor->RegisterNonBlockingFilterAttachHandler({.type = event_type::kExitProcess}, true, 0,
                                                                  handler.get(), &id),
            zym::ZYM_OK);
  ASSERT_EQ(CallSlot<Result>(Facade(0xdae40c14), 5, std::uint32_t{1}), zym::ZYM_OK);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  const zym::intrusive_ptr<qor::process_manager::ISystemEvent> event = handler->Wait(child);
  ASSERT_TRUE(event);
  void* const object = event.get();
  const std::uint64_t* sequence = nullptr;
  EXPECT_EQ(CallSlot<Result>(object, 3, &sequence), zym::ZYM_OK);
  EXPECT_NE(sequence, nullptr);
  zym::types::range_t<const std::uint8_t*> view;
  EXPECT_EQ(CallSlot<Result>(object, 4, system_interceptors::event_param::kPid, &view), zym::ZYM_OK);
  ASSERT_EQ(view.size(), 4U);
  std::uint32_t pid = 0;
  std::memcpy(&pid, view.begin(), sizeof(pid));
  EXPECT_EQ(CallSlot<std::uint32_t>(object, 5), event_type::kExitProcess);
  EXPECT_EQ(CallSlot<qor::PidType>(object, 6), pid);
  EXPECT_EQ(CallSlot<qor::PidType>(object, 7), static_cast<qor::PidType>(::getpid())) << "who created it";
  EXPECT_FALSE(CallSlot<bool>(object, 8));
  EXPECT_FALSE(event->ToString().empty()) << "10, behind Complete, which is the module's own";
  void* bag = nullptr;
  EXPECT_EQ(CallSlot<Result>(object, 2, zym::iid_t{0x3a4e9ae4}, &bag), zym::ZYM_OK);
  CallSlot<std::uint32_t>(bag, 1);
  m_interceptor->DeleteFilters({&id, &id + 1});
  handler->Clear();
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
}

}  // namespace
