// The places of operations in the interfaces that the host implements, and of those that only objects inside
// the module call; what a host calls is called through its slots in the tests of the loaded module. And the
// numbers of all interfaces that host and module speak through.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>

#include "process_manager/event_processing.h"
#include "process_manager/file_descriptor.h"
#include "process_manager/interception/i_event_dispatcher.h"
#include "process_manager/interceptor.h"
#include "process_manager/interceptor_settings.h"
#include "process_manager/meta_info.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_cache.h"
#include "process_manager/process_manager.h"
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
#include "zym/io.h"
#include "zym/property_bag.h"
#include "zym/tracer.h"

namespace {

using namespace qor;
using namespace qor::process_manager;
using namespace system_interceptors::event_processing;
using system_interceptors::interceptor_facade::IInterceptor;
using system_interceptors::interceptor_facade::IInterceptor2;

// Where an operation stands in the table of its interface. A pointer to a virtual operation holds the offset
// of its slot plus 1 (Itanium C++ ABI, 2.3).
template <class Operation>
std::size_t SlotOf(Operation operation) {
  std::ptrdiff_t offset = 0;
  static_assert(sizeof(operation) >= sizeof(offset));
  std::memcpy(&offset, &operation, sizeof(offset));
  return static_cast<std::size_t>(offset - 1) / sizeof(void*);
}

TEST(InterfaceOrder, OfTheFrame) {
  EXPECT_EQ(SlotOf(&zym::IObject::AddRef), 0U);
  EXPECT_EQ(SlotOf(&zym::IObject::Release), 1U);
  EXPECT_EQ(SlotOf(&zym::IObject::QueryInterface), 2U);
  EXPECT_EQ(SlotOf(&zym::IObjectFactory::CreateInstance), 3U);
  EXPECT_EQ(SlotOf(&zym::IServiceLocator::GetInterface), 3U);
  EXPECT_EQ(SlotOf(&zym::IAllocator::Alloc), 3U);
  EXPECT_EQ(SlotOf(&zym::IAllocator::Free), 5U) << "one between them isn't called";
  EXPECT_EQ(SlotOf(&zym::IRunnable::Run), 3U);
}

TEST(InterfaceOrder, OfTheTracers) {
  EXPECT_EQ(SlotOf(&zym::ITracer::GetRecord), 3U);
  EXPECT_EQ(SlotOf(&zym::ITracer::CommitRecord), 4U);
  EXPECT_EQ(SlotOf(&zym::trace::IPrefixTracer::GetPrefix), 3U);
  EXPECT_EQ(SlotOf(&zym::trace::IPrefixTracer::GetTracer), 4U);
  EXPECT_EQ(SlotOf(&zym::ITraceLevelSource::GetLevelPtr), 3U);
  EXPECT_EQ(SlotOf(&zym::ITracerCategoryFilter::Check), 3U);
}

TEST(InterfaceOrder, OfADescriptor) {
  EXPECT_EQ(SlotOf(&zym::ISerObjDescriptor::Construct), 0U);
  EXPECT_EQ(SlotOf(&zym::ISerObjDescriptor::Create), 1U);
  EXPECT_EQ(SlotOf(&zym::ISerObjDescriptor::Destroy), 2U);
  EXPECT_EQ(SlotOf(&zym::ISerObjDescriptor::Assign), 3U);
  EXPECT_EQ(SlotOf(&zym::ISerObjDescriptor::Move), 4U);
  EXPECT_EQ(SlotOf(&zym::ISerVectorHelper::GetCount), 0U);
  EXPECT_EQ(SlotOf(&zym::ISerVectorHelper::Resize), 1U);
  EXPECT_EQ(SlotOf(&zym::ISerVectorHelper::GetElement), 2U);
  EXPECT_EQ(SlotOf(&zym::ISerVectorHelper::Clear), 3U);
}

TEST(InterfaceOrder, OfEventsAndTheirHandlers) {
  EXPECT_EQ(SlotOf(&ISystemEvent::GetEventId), 3U);
  EXPECT_EQ(SlotOf(&ISystemEvent::GetParam), 4U);
  EXPECT_EQ(SlotOf(&ISystemEvent::GetType), 5U);
  EXPECT_EQ(SlotOf(&ISystemEvent::GetPid), 6U);
  EXPECT_EQ(SlotOf(&ISystemEvent::GetCpid), 7U);
  EXPECT_EQ(SlotOf(&ISystemEvent::IsFake), 8U);
  EXPECT_EQ(SlotOf(&ISystemEvent::Complete), 9U);
  EXPECT_EQ(SlotOf(&ISystemEvent::ToString), 10U);
  EXPECT_EQ(SlotOf(&INonBlockingEventHandler::OnEvent), 3U);
  EXPECT_EQ(SlotOf(&IBlockingEventHandler::OnEvent), 3U);
}

TEST(InterfaceOrder, OfTheDispatcher) {
  using non_blocking::IEventDispatcher;
  EXPECT_EQ(SlotOf(&IEventDispatcher::Dispatch), 3U);
  EXPECT_EQ(SlotOf(&IEventDispatcher::SetCreateProcessHandler), 4U);
  EXPECT_EQ(SlotOf(&IEventDispatcher::SetExitProcessHandler), 5U);
  EXPECT_EQ(SlotOf(&IEventDispatcher::SetFileCreatedHandler), 6U);
  EXPECT_EQ(SlotOf(&IEventDispatcher::SetFileChangedHandler), 7U);
  EXPECT_EQ(SlotOf(&IEventDispatcher::SetConsoleInputHandler), 8U);
}

TEST(InterfaceOrder, OfTheServicesOfTheHost) {
  EXPECT_EQ(SlotOf(&IInterceptorSettings::OnInterceptorSettingsChanged), 3U);
  EXPECT_EQ(SlotOf(&IStartupDataProvider::GetStartupData), 3U);
  EXPECT_EQ(SlotOf(&IExecListenerFactory::GetExecListener), 3U);
  EXPECT_EQ(SlotOf(&IExecListenerControl::SetEnvironCapturing), 4U) << "the first isn't called";
  EXPECT_EQ(SlotOf(&IExecStringsProvider::GetExecStrings), 3U);
  EXPECT_EQ(SlotOf(&IRootFdProvider::GetNamespaceFd), 3U);
}

TEST(InterfaceOrder, OfSettingsAndMatchers) {
  EXPECT_EQ(SlotOf(&IAppSettingsProvider::GetSettings), 4U) << "the first isn't called";
  EXPECT_EQ(SlotOf(&IQorProcessSuspender::SuspendProcess), 3U);
  EXPECT_EQ(SlotOf(&IQorProcessSuspender::ReleaseProcess), 4U);
  EXPECT_EQ(SlotOf(&IQorProcessSuspender::ReadMemory), 5U);
  EXPECT_EQ(SlotOf(&IQorProcessSuspender::Start), 6U);
  EXPECT_EQ(SlotOf(&IQorProcessSuspender::Stop), 7U);
  EXPECT_EQ(SlotOf(&IPathMatcherFactory::CreateMountMatcher), 7U) << "the fifth operation";
  EXPECT_EQ(SlotOf(&IPathMatcherFactory::CreatePathMatcher), 10U) << "the eighth";
  EXPECT_EQ(SlotOf(&IPathMatcher::Match), 3U);
  EXPECT_EQ(SlotOf(&IPathMatcher::MatchName), 4U);
}

TEST(InterfaceOrder, OfTheFeatureTable) {
  EXPECT_EQ(SlotOf(&IFeatureTechsAggregator::RegisterTech), 3U);
  EXPECT_EQ(SlotOf(&IFeatureTechsAggregator::UnregisterTech), 4U);
  EXPECT_EQ(SlotOf(&IFeatureTechsAggregator::RegisterFeature), 5U);
  EXPECT_EQ(SlotOf(&IFeatureTechsAggregator::UnregisterFeature), 6U);
  EXPECT_EQ(SlotOf(&IFeatureTechsAggregator::Report), 7U);
}

TEST(InterfaceOrder, OfStreamsAndTheirProperties) {
  EXPECT_EQ(SlotOf(&zym::IIO::Read), 3U);
  EXPECT_EQ(SlotOf(&zym::IIO::Write), 4U);
  EXPECT_EQ(SlotOf(&zym::IIO::Seek), 5U);
  EXPECT_EQ(SlotOf(&zym::IIO::GetPos), 6U);
  EXPECT_EQ(SlotOf(&zym::IIO::GetSize), 7U);
  EXPECT_EQ(SlotOf(&zym::IIO::SetSize), 8U);
  EXPECT_EQ(SlotOf(&zym::IIO::Flush), 9U);
  EXPECT_EQ(SlotOf(&zym::IAccessModeController::GetAccessMode), 3U);
  EXPECT_EQ(SlotOf(&zym::IAccessModeController::ChangeAccessMode), 4U);
  EXPECT_EQ(SlotOf(&zym::IAccessModeController::GetAvailableAccessMode), 5U);
  EXPECT_EQ(SlotOf(&zym::IFileDescriptor::GetPath), 3U);
  EXPECT_EQ(SlotOf(&zym::IFileDescriptor::GetAttributes), 4U);
  EXPECT_EQ(SlotOf(&zym::IFileDescriptor::GetCreationTime), 5U);
  EXPECT_EQ(SlotOf(&zym::IFileDescriptor::GetLastWriteTime), 6U);
  EXPECT_EQ(SlotOf(&zym::IFileDescriptor::GetLastAccessTime), 7U);
  EXPECT_EQ(SlotOf(&zym::IFileDescriptor::GetSize), 8U);
  EXPECT_EQ(SlotOf(&zym::IFileDescriptor::SetAttributes), 9U);
  EXPECT_EQ(SlotOf(&zym::IFileDescriptor::SetCreationTime), 10U);
  EXPECT_EQ(SlotOf(&zym::IFileDescriptor::SetLastWriteTime), 11U);
  EXPECT_EQ(SlotOf(&zym::IFileDescriptor::SetLastAccessTime), 12U);
  EXPECT_EQ(SlotOf(&IFileDescriptor::GetDescriptor), 13U) << "of the interface that extends it";
  EXPECT_EQ(SlotOf(&zym::IPropertyBag::Get), 3U);
  EXPECT_EQ(SlotOf(&zym::IPropertyBag::Put), 4U);
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
      {IInterceptor::kIid, 0xde7726f2},
      {IInterceptor2::kIid, 0x49b85a1b},
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
  };
  std::set<zym::iid_t> numbers;
  for (const auto& [iid, expected] : rows) {
    EXPECT_EQ(iid, expected) << std::hex << expected;
    EXPECT_TRUE(numbers.insert(iid).second) << std::hex << iid << " is there twice";
  }
}

}  // namespace
