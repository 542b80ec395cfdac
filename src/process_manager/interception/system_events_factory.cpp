#include "process_manager/interception/system_events_factory.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "process_manager/process/process_description.h"
#include "qor_common/mount_namespace.h"
#include "qor_common/process_root.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;
using zym::trace::kFailure;
namespace event_type = system_interceptors::event_type;

}  // namespace

SystemEventsFactory::SystemEventsFactory(zym::IServiceLocator* locator, NativePath watchdogExecutable)
    : ServiceLocatorProvider(locator),
      TracerProvider(locator, "SystemEventsFactory"),
      m_context(std::make_shared<const EventContext>(locator, std::move(watchdogExecutable))) {}

zym::intrusive_ptr<ISystemEvent> SystemEventsFactory::Create(
    std::uint32_t type, process_cache::EventInfo& info, const zym::intrusive_ptr<IExecListener>& listener,
    int fd) {
  ZYM_TRACE(GetTracer(), kCall,
            "process" << (info.isFork ? " fork" : "") << (info.isFake ? " fake" : "")
                      << " event: " << DescribeProcess(info.info, m_context->GetCategoryFilter()));
  ImageDescriptors descriptors;
  if (fd >= 0) DuplicateImage(fd, descriptors);
  if (type == event_type::kCreateProcess && (info.info.flags & kNoBackingImage) == 0 &&
      MayOpenInForeignMountNamespace(info.info))
    OpenImage(info.info, descriptors);
  return zym::CreateObject<Event>(m_context, type, std::move(info), listener, std::move(descriptors));
}

// This and OpenImage trace under the name of Create, whose steps they are: meant.
void SystemEventsFactory::DuplicateImage(int fd, ImageDescriptors& descriptors) {
  const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  const int error = errno;
  if (copy < 0)
    ZYM_TRACE(GetTracer(), kFailure,
              "Create: Failed to duplicate the descriptor of the image: "
                  << zym::trace::Code{zym::ErrnoToResult(error)});
  descriptors.file.Reset(copy);
}

// The switch first: asking for it is cheaper than a look at the own namespace, and it is off on most
// machines.
bool SystemEventsFactory::MayOpenInForeignMountNamespace(const process_cache::ProcessInformation& info) {
  zym::intrusive_ptr<IFeatureLookup> features;
  bool open = false;
  return ZYM_SUCCEEDED(zym::GetInterface(GetServiceLocator(), features.Ref())) &&
         ZYM_SUCCEEDED(features->GetBoolean(kOpenIOFromForeignMountNamespace, &open)) && open &&
         tools::IsForeignNamespace(info.mountNamespaceId);
}

void SystemEventsFactory::OpenImage(const process_cache::ProcessInformation& info,
                                    ImageDescriptors& descriptors) {
  ZYM_TRACE(GetTracer(), kCall, "Create: Opening process image in its mount namespace");
  const bool haveFile{descriptors.file};
  const zym::result_t result =
      haveFile ? tools::OpenDirectoryOfPath(info.pid, info.imagePath, descriptors.directory)
               : tools::OpenFileOfPath(info.pid, info.imagePath, descriptors.directory, descriptors.file);
  if (!ZYM_SUCCEEDED(result))
    ZYM_TRACE(GetTracer(), kFailure,
              "Create: Failed to open process image in its mount namespace, " << zym::trace::Code{result});
}

}  // namespace qor::process_manager
