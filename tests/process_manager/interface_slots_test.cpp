// The places of operations in the interfaces through which host and module call each other, and the
// interfaces' numbers: what a host was built with, whichever compiler built it, must be what the module has.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <set>
#include <type_traits>
#include <vector>

#include "process_manager/application_manager.h"
#include "process_manager/event_processing.h"
#include "process_manager/file_descriptor.h"
#include "process_manager/file_name_mapper.h"
#include "process_manager/interception/i_event_dispatcher.h"
#include "process_manager/interceptor.h"
#include "process_manager/interceptor_settings.h"
#include "process_manager/meta_info.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_cache.h"
#include "process_manager/process_manager.h"
#include "process_manager/process_memory.h"
#include "process_manager/process_modules.h"
#include "process_manager/services/app_settings.h"
#include "process_manager/services/exec_listener.h"
#include "process_manager/services/feature_lookup.h"
#include "process_manager/services/feature_techs.h"
#include "process_manager/services/path_matching.h"
#include "process_manager/services/process_suspender.h"
#include "process_manager/services/product_values.h"
#include "process_manager/services/root_fd_provider.h"
#include "process_manager/services/scan_statistics.h"
#include "process_manager/services/startup_data.h"
#include "process_manager/user_localization.h"
#include "zym/io.h"
#include "zym/property_bag.h"
#include "zym/tracer.h"

namespace {

using namespace qor;
using namespace qor::process_manager;
using namespace system_interceptors::event_processing;
using namespace system_interceptors::process_manager;
using zym::types::string16_t;
namespace facade = system_interceptors::interceptor_facade;

// Where an operation stands in the table of its interface. A pointer to a virtual operation holds the offset
// of its slot plus 1 (Itanium C++ ABI, 2.3).
template <class Operation>
std::size_t SlotOf(Operation operation) {
  std::ptrdiff_t offset = 0;
  static_assert(sizeof(operation) >= sizeof(offset));
  std::memcpy(&offset, &operation, sizeof(offset));
  return static_cast<std::size_t>(offset - 1) / sizeof(void*);
}

// The operations stand behind each other, from slot `first` on.
template <class... Operations>
void ExpectSlots(std::size_t first, Operations... operations) {
  const std::vector<std::size_t> slots = {SlotOf(operations)...};
  std::vector<std::size_t> expected(slots.size());
  std::iota(expected.begin(), expected.end(), first);
  EXPECT_EQ(slots, expected);
}

// The first of an interface's own, behind those of IObject.
constexpr std::size_t kOwn = 3;

TEST(InterfaceSlots, OfTheFrame) {
  ExpectSlots(0, &zym::IObject::AddRef, &zym::IObject::Release, &zym::IObject::QueryInterface);
  ExpectSlots(kOwn, &zym::IObjectFactory::CreateInstance);
  ExpectSlots(kOwn, &zym::IServiceLocator::GetInterface);
  ExpectSlots(kOwn, &zym::IAllocator::Alloc, &zym::IAllocator::Reallocate, &zym::IAllocator::Free);
  ExpectSlots(kOwn, &zym::IRunnable::Run);
}

TEST(InterfaceSlots, OfTheTracers) {
  ExpectSlots(kOwn, &zym::ITracer::GetRecord, &zym::ITracer::CommitRecord);
  ExpectSlots(kOwn, &zym::trace::IPrefixTracer::GetPrefix, &zym::trace::IPrefixTracer::GetTracer);
  ExpectSlots(kOwn, &zym::ITraceLevelSource::GetLevelPtr);
  ExpectSlots(kOwn, &zym::ITracerCategoryFilter::Check);
}

TEST(InterfaceSlots, OfTheMetaInformation) {
  using zym::IMetaInfoProvider, zym::IStructMetaInfoRegistry, zym::ISerObjDescriptor, zym::ISerVectorHelper;
  ExpectSlots(kOwn, &IMetaInfoProvider::GetClassIds, &IMetaInfoProvider::GetDescriptor,
              &IMetaInfoProvider::Reserved3, &IMetaInfoProvider::Reserved4,
              &IMetaInfoProvider::GetDescriptorById, &IMetaInfoProvider::Reserved6,
              &IMetaInfoProvider::Reserved7);
  ExpectSlots(kOwn, &IStructMetaInfoRegistry::GetDescriptor, &IStructMetaInfoRegistry::Reserved2,
              &IStructMetaInfoRegistry::Reserved3);
  // These are no objects: they begin at slot 0.
  ExpectSlots(0, &ISerObjDescriptor::Construct, &ISerObjDescriptor::Create, &ISerObjDescriptor::Destroy,
              &ISerObjDescriptor::Assign, &ISerObjDescriptor::Move);
  ExpectSlots(0, &ISerVectorHelper::GetCount, &ISerVectorHelper::Resize, &ISerVectorHelper::GetElement,
              &ISerVectorHelper::Clear);
}

TEST(InterfaceSlots, OfTheInterceptor) {
  using facade::IInterceptor, facade::IInterceptor2;
  ExpectSlots(kOwn, &IInterceptor::GetOfflineLog, &IInterceptor::RegisterBlockingFilterAttachHandler,
              &IInterceptor::RegisterNonBlockingFilterAttachHandler, &IInterceptor::RegisterFilter,
              &IInterceptor::DeleteFilters, &IInterceptor::EnableFilters, &IInterceptor::DisableFilters,
              &IInterceptor::ReservedOperation,
              // One run of operations serves both interfaces.
              &IInterceptor2::AttachHandler, &IInterceptor2::DetachHandler,
              &IInterceptor2::EnableDisableFilters, &IInterceptor2::GetFilterStatus);
  static_assert(std::is_base_of_v<IInterceptor, IInterceptor2>);
  ExpectSlots(kOwn, &IQorInterceptor::EnableBlockingInterceptor, &IQorInterceptor::DisableBlockingInterceptor,
              &IQorInterceptor::EnableNonBlockingInterceptor, &IQorInterceptor::DisableNonBlockingInterceptor,
              &IQorInterceptor::EnableJournalInterceptor, &IQorInterceptor::DisableJournalInterceptor,
              &IQorInterceptor::EnableConsoleInputInterceptor,
              &IQorInterceptor::DisableConsoleInputInterceptor);
}

TEST(InterfaceSlots, OfTheSettings) {
  ExpectSlots(kOwn, &IInterceptorSettings::OnInterceptorSettingsChanged);
  ExpectSlots(kOwn, &IInterceptorSettingsSubscription::Subscribe,
              &IInterceptorSettingsSubscription::Unsubscribe);
  ExpectSlots(kOwn, &IInterceptorSettingsHolder::SetSettings, &IInterceptorSettingsHolder::GetSettings);
}

TEST(InterfaceSlots, OfTheApplications) {
  using system_interceptors::application_manager_facade::IApplication;
  using system_interceptors::application_manager_facade::IApplicationManager;
  ExpectSlots(kOwn, &IApplicationManager::CreateApplication, &IApplicationManager::DeleteApplication,
              &IApplicationManager::OpenApplication);
  ExpectSlots(kOwn, &IApplication::GetInterceptor);
}

TEST(InterfaceSlots, OfEventsAndTheirHandlers) {
  ExpectSlots(kOwn, &ISystemEvent::GetEventId, &ISystemEvent::GetParam, &ISystemEvent::GetType,
              &ISystemEvent::GetPid, &ISystemEvent::GetCpid, &ISystemEvent::IsFake, &ISystemEvent::Complete,
              &ISystemEvent::ToString);
  ExpectSlots(kOwn, &INonBlockingEventHandler::OnEvent);
  ExpectSlots(kOwn, &IBlockingEventHandler::OnEvent);
}

TEST(InterfaceSlots, OfTheDispatcher) {
  using non_blocking::IEventDispatcher;
  ExpectSlots(kOwn, &IEventDispatcher::Dispatch, &IEventDispatcher::SetCreateProcessHandler,
              &IEventDispatcher::SetExitProcessHandler, &IEventDispatcher::SetFileCreatedHandler,
              &IEventDispatcher::SetFileChangedHandler, &IEventDispatcher::SetConsoleInputHandler);
}

TEST(InterfaceSlots, OfTheCache) {
  ExpectSlots(kOwn, &IProcessInfoProvider::Get, &IProcessInfoProvider::GetByUniquePid,
              &IProcessInfoProvider::Update, &IProcessInfoProvider::UpdateAdditionalInfo);
  ExpectSlots(kOwn, &IEventInfoProvider::OnFork, &IEventInfoProvider::OnExec, &IEventInfoProvider::OnExit,
              &IEventInfoProvider::OnExecPerm, &IEventInfoProvider::OnExecDeny,
              &IEventInfoProvider::OnCreateProcess, &IEventInfoProvider::OnExitProcess,
              &IEventInfoProvider::OnUidChange, &IEventInfoProvider::OnGidChange);
}

TEST(InterfaceSlots, OfTheReaderOfProc) {
  using procfs::IParser;
  ExpectSlots(kOwn, &IParser::GetStat, &IParser::GetIOCounters, &IParser::GetProcLink, &IParser::GetMaps,
              &IParser::GetCmdline, &IParser::GetProcessList, &IParser::GetProcessListByRelevance,
              &IParser::GetIOMemMap, &IParser::GetImagePath, &IParser::GetDescriptors,
              &IParser::GetDescriptorInfo, &IParser::GetModules, &IParser::GetModulesSections,
              &IParser::GetCreds, &IParser::GetEnvironmentVariable, &IParser::GetWorkingDir,
              &IParser::GetComm, &IParser::GetEnvironmentVariables, &IParser::GetMountNamespaceId);
}

TEST(InterfaceSlots, OfProcesses) {
  ExpectSlots(kOwn, &IProcessManager::Enumerate, &IProcessManager::GetInformation,
              &IProcessManager::GetInformationByUniqueId, &IProcessManager::GetControl,
              &IProcessManager::GetControlByUniqueId);
  ExpectSlots(kOwn, &IProcessInformationEnumerator::Next, &IProcessInformationEnumerator::Reset);
  ExpectSlots(kOwn, &IProcessInformation::GetInformation);
  ExpectSlots(
      kOwn, &IPosixProcessInformation::GetEnvironmentVariables, &IPosixProcessInformation::GetAuditUserId,
      &IPosixProcessInformation::GetUserName, &IPosixProcessInformation::GetRealUserId,
      &IPosixProcessInformation::GetEffectiveUserId, &IPosixProcessInformation::GetGroupName,
      &IPosixProcessInformation::GetRealGroupId, &IPosixProcessInformation::GetEffectiveGroupId,
      // One run of operations serves both interfaces.
      &IPosixProcessInformation2::IsHostMountNamespace, &IPosixProcessInformation2::GetMountNamespaceId);
  static_assert(std::is_base_of_v<IPosixProcessInformation, IPosixProcessInformation2>);
  ExpectSlots(kOwn, &IProcessControl::GetInformation, &IProcessControl::GetExitTime,
              &IProcessControl::GetTimes, &IProcessControl::GetIoCounters, &IProcessControl::GetVmCounters,
              &IProcessControl::IsSystemCriticalProcess, &IProcessControl::Terminate,
              &IProcessControl::TerminateAndWait);
  ExpectSlots(kOwn, &IProcessAttributes::GetAttributeFlags, &IProcessAttributes::UpdateAttributeFlags);
}

TEST(InterfaceSlots, OfTheMemoryAndTheModulesOfAProcess) {
  using namespace system_interceptors::process_memory_manager;
  ExpectSlots(kOwn, &IProcessMemoryFactory::Create);
  ExpectSlots(kOwn, &IProcessMemory::EnumerateMemoryRegions, &IProcessMemory::QueryRegion,
              &IProcessMemory::QueryMappedFilePath, &IProcessMemory::ReadMemory,
              &IProcessMemory::WriteMemory);
  ExpectSlots(kOwn, &IProcessMemoryRegionEnumerator::Next, &IProcessMemoryRegionEnumerator::Reset);
  ExpectSlots(kOwn, &IProcessModuleManager::EnumerateModules, &IProcessModuleManager::GetModule);
  ExpectSlots(kOwn, &IProcessModuleEnumerator::Next, &IProcessModuleEnumerator::Reset);
  ExpectSlots(kOwn, &IProcessModule::GetImagePath, &IProcessModule::GetBaseAddress, &IProcessModule::GetSize,
              &IProcessModule::GetInformation);
}

TEST(InterfaceSlots, OfNamesAndLanguages) {
  using First = system_interceptors::file_name_mapper::IFileNameMapper;
  using Second = system_interceptors::file_name_mapper::IFileNameMapper2;
  using Third = dorp::IFileNameMapper;
  using zym::result_t;
  ExpectSlots(kOwn, static_cast<result_t (First::*)(const string16_t&, string16_t&)>(&First::CopyName),
              static_cast<result_t (First::*)(const char16_t*, string16_t&)>(&First::CopyName),
              &First::NormalizeName);
  ExpectSlots(
      kOwn, static_cast<result_t (Second::*)(std::u16string_view, string16_t&)>(&Second::CopyName),
      static_cast<result_t (Second::*)(std::u16string_view, string16_t&, std::uint32_t)>(&Second::CopyName));
  ExpectSlots(kOwn, static_cast<result_t (Third::*)(const char16_t*, string16_t&)>(&Third::CopyName),
              static_cast<result_t (Third::*)(std::uint64_t, const char16_t*, string16_t&)>(&Third::CopyName),
              &Third::CopyNameBack);
  ExpectSlots(kOwn, &IProcessUserLocalizationProvider::GetProcessUserLocalization);
}

TEST(InterfaceSlots, OfTheServicesOfTheHost) {
  ExpectSlots(kOwn, &IStartupDataProvider::GetStartupData);
  ExpectSlots(kOwn, &IExecListenerFactory::GetExecListener);
  ExpectSlots(kOwn, &IExecListenerControl::GetEnvironCapturing, &IExecListenerControl::SetEnvironCapturing);
  ExpectSlots(kOwn, &IExecStringsProvider::GetExecStrings);
  ExpectSlots(kOwn, &IRootFdProvider::GetNamespaceFd);
  ExpectSlots(kOwn, &IAppSettingsProvider::GetDefaultSettings, &IAppSettingsProvider::GetSettings);
  ExpectSlots(kOwn, &IQorProcessSuspender::SuspendProcess, &IQorProcessSuspender::ReleaseProcess,
              &IQorProcessSuspender::ReadMemory, &IQorProcessSuspender::Start, &IQorProcessSuspender::Stop);
  ExpectSlots(kOwn, &IPathMatcher::Match, &IPathMatcher::MatchName);
  ExpectSlots(kOwn, &IPathMatcherFactory::CheckPattern, &IPathMatcherFactory::CreateExactMatcher,
              &IPathMatcherFactory::CreateTreeMatcher, &IPathMatcherFactory::CreateExceptingMatcher,
              &IPathMatcherFactory::CreateMountMatcher, &IPathMatcherFactory::CreateNameMatcher,
              &IPathMatcherFactory::CreatePatternMatcher, &IPathMatcherFactory::CreatePathMatcher);
  ExpectSlots(kOwn, &IFeatureTechsAggregator::RegisterTech, &IFeatureTechsAggregator::UnregisterTech,
              &IFeatureTechsAggregator::RegisterFeature, &IFeatureTechsAggregator::UnregisterFeature,
              &IFeatureTechsAggregator::Report);
}

TEST(InterfaceSlots, OfStreamsAndTheirProperties) {
  ExpectSlots(kOwn, &zym::IIO::Read, &zym::IIO::Write, &zym::IIO::Seek, &zym::IIO::GetPos, &zym::IIO::GetSize,
              &zym::IIO::SetSize, &zym::IIO::Flush);
  ExpectSlots(kOwn, &zym::IAccessModeController::GetAccessMode, &zym::IAccessModeController::ChangeAccessMode,
              &zym::IAccessModeController::GetAvailableAccessMode);
  ExpectSlots(kOwn, &zym::IFileDescriptor::GetPath, &zym::IFileDescriptor::GetAttributes,
              &zym::IFileDescriptor::GetCreationTime, &zym::IFileDescriptor::GetLastWriteTime,
              &zym::IFileDescriptor::GetLastAccessTime, &zym::IFileDescriptor::GetSize,
              &zym::IFileDescriptor::SetAttributes, &zym::IFileDescriptor::SetCreationTime,
              &zym::IFileDescriptor::SetLastWriteTime, &zym::IFileDescriptor::SetLastAccessTime,
              &IFileDescriptor::GetDescriptor);  // of the interface that extends it
  ExpectSlots(kOwn, &zym::IPropertyBag::Get, &zym::IPropertyBag::Put);
}

TEST(InterfaceNumbers, AreThoseThatHostAndModuleKnow) {
  const struct {
    zym::iid_t iid;
    zym::iid_t expected;
  } rows[] = {
      {zym::IObject::kIid, 0x00000000},
      {zym::IObjectFactory::kIid, 0x80077a33},
      {zym::ITracer::kIid, 0x6ef3329b},
      {zym::trace::IPrefixTracer::kIid, 0xce153b3b},
      {zym::ITraceLevelSource::kIid, 0x9397b017},
      {zym::IAllocator::kIid, 0x9cca5603},
      {IStartupDataProvider::kIid, 0xa26c8413},
      {IExecListenerFactory::kIid, 0x797d4ce7},
      {IExecListenerControl::kIid, 0x70501d1b},
      {IInterceptorSettingsSubscription::kIid, 0x90a67124},
      {IInterceptorSettingsHolder::kIid, 0xf62878be},
      {IInterceptorSettings::kIid, 0x4f299e8f},
      {facade::IInterceptor::kIid, 0xde7726f2},
      {facade::IInterceptor2::kIid, 0x49b85a1b},
      {IQorInterceptor::kIid, 0xdae40c14},
      {non_blocking::IEventDispatcher::kIid, 0x4c2ef210},
      {ISystemEvent::kIid, 0xe8446ab7},
      {zym::IPropertyBag::kIid, 0x3a4e9ae4},
      {zym::IEnumProperties::kIid, 0xd7d72096},
      {IProcessInfoProvider::kIid, 0xffc9e198},
      {IEventInfoProvider::kIid, 0x79864d30},
      {procfs::IParser::kIid, 0xc9b36ad4},
      {system_interceptors::process_manager::IProcessManager::kIid, 0x476789db},
      {IAppSettingsProvider::kIid, 0x345e2eb8},
      {IQorProcessSuspender::kIid, 0xdd65aa6a},
      {IPathMatcherFactory::kIid, 0x38514cf7},
      {zym::IMetaInfoProvider::kIid, 0xa53230cb},
      {zym::IStructMetaInfoRegistry::kIid, 0xfe7da4e6},
      {zym::IIO::kIid, 0x0000000a},
      {zym::IRunnable::kIid, 0xe8305a5d},
      {zym::ITracerCategoryFilter::kIid, 0x2b6ab0fb},
      {IScanStatisticsCollector::kIid, 0x97074f39},
      {IFeatureLookup::kIid, 0x9caa2097},
      {IExecInformationSource::kIid, 0x093b54f2},
      {IExecStringsProvider::kIid, 0xd9cda451},
      {IFeatureTechsAggregator::kIid, 0x05f76414},
      {IProductValues::kIid, 0xb70e30bb},
      {IRootFdProvider::kIid, 0x6380f86d},
      {system_interceptors::file_name_mapper::IFileNameMapper2::kIid, 0x32dda863},
      {dorp::IFileNameMapper::kIid, 0xde5b3c97},
      {system_interceptors::process_memory_manager::IProcessMemory::kIid, 0xb3f8c301},
      {IProcessModuleEnumerator::kIid, 0xdd01a982},
      {IProcessModule::kIid, 0x3557339b},
  };
  std::set<zym::iid_t> numbers;
  for (const auto& [iid, expected] : rows) {
    EXPECT_EQ(iid, expected) << std::hex << expected;
    EXPECT_TRUE(numbers.insert(iid).second) << std::hex << iid << " is there twice";
  }
}

}  // namespace
