#include "process_manager/event.h"

#include <type_traits>
#include <utility>

#include "process_manager/event_names.h"
#include "process_manager/process_description.h"
#include "qor_common/file_io.h"
#include "qor_common/tools.h"
#include "zym/exception_to_result.h"
#include "zym/service_provider.h"
#include "zym/trace.h"
#include "zym/utf.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;
using zym::trace::kFailure;
namespace event_type = system_interceptors::event_type;
namespace event_param = system_interceptors::event_param;

constexpr std::uint32_t kExecStringsTimeout = 20;  // milliseconds
constexpr std::uint64_t kZero = 0;

using View = zym::types::range_t<const std::uint8_t*>;

template <class T>
requires std::is_arithmetic_v<T> View ViewOf(const T& value) {
  const auto* const begin = reinterpret_cast<const std::uint8_t*>(&value);
  return {begin, begin + sizeof(value)};
}

View ViewOf(const zym::types::string16_t& text) {
  const auto* const begin = reinterpret_cast<const std::uint8_t*>(text.data());
  return {begin, begin + text.size() * sizeof(char16_t)};
}

// Resolved once, on first need. Empty when it can't be.
const zym::types::string16_t& WatchdogPath(zym::ITracer* tracer) {
  static const zym::types::string16_t path = [tracer, function = __func__] {
    try {
      const NativePath resolved = tools::Realpath("/opt/quelmarin/vorn/libexec/wdserver");
      return zym::Utf8ToUtf16(resolved).value_or(zym::types::string16_t());
    } catch (...) {
      zym::ExceptionInFunctionToResult(tracer, function);
      return zym::types::string16_t();
    }
  }();
  return path;
}

}  // namespace

Event::Event(std::shared_ptr<const EventContext> context, std::uint32_t type, process_cache::EventInfo&& info,
             const zym::intrusive_ptr<IExecListener>& listener, ImageDescriptors descriptors)
    : m_context(std::move(context)),
      m_info(std::move(info)),
      m_type(type),
      m_subjectPid(type == event_type::kExitProcess ? m_info.info.pid : m_info.info.creatorPid),
      m_subjectUniquePid(type == event_type::kExitProcess ? m_info.info.uniquePid
                                                          : m_info.info.creatorUniquePid),
      m_fromExec(m_info.isFork ? 0 : 1) {
  if (descriptors.file) PutImage(std::move(descriptors));
  if (listener) static_cast<void>(zym::QueryInterface(listener, m_execInformationSource.Ref()));
}

void Event::PutImage(ImageDescriptors descriptors) try {
  const int fd = descriptors.file.Get();
  const auto io = zym::CreateObject<IO>(m_context->locator.get(), fd, descriptors.directory.Get(),
                                        static_cast<ino_t>(m_info.info.mountNamespaceId), true);
  // The stream owns them from here on.
  static_cast<void>(descriptors.file.Release());
  static_cast<void>(descriptors.directory.Release());
  zym::objptr_t<zym::IObject> object;
  static_cast<void>(io->QueryInterface(zym::IObject::kIid, reinterpret_cast<void**>(object.Ref())));
  const zym::types::variant_t value(std::move(object));
  constexpr zym::propid_t kExecutable = si_ep::create_process_event::extended_parameters::ExecutableFileIO;
  if (ZYM_SUCCEEDED(ZYM_REPORT_RESULT(GetTracer(), Put(kExecutable, &value), "Failed to put qor::IO")))
    m_imageFd = fd;
} catch (...) {
  ZYM_TRACE(GetTracer(), kFailure,
            "PutImage: "
                << "Failed to put qor::IO");
  zym::ExceptionInFunctionToResult(GetTracer(), "PutImage");
}

zym::result_t Event::GetEventId(const std::uint64_t** id) {
  *id = &m_info.sequence;
  return zym::ZYM_OK;
}

zym::result_t Event::GetParam(std::uint32_t param, View* value) {
  const process_cache::ProcessInformation& info = m_info.info;
  const auto give = [value](const auto& field) {
    *value = ViewOf(field);
    return zym::ZYM_OK;
  };
  switch (param) {
    case event_param::kMountNamespaceId:
      return give(info.mountNamespaceId);
    case event_param::kTimestamp:
      return give(m_info.timestamp);
    case event_param::kRealUserId:
      return info.realUserId ? give(*info.realUserId) : zym::ZYM_E_NOT_FOUND;
    case event_param::kPid:
      return give(info.pid);
    case event_param::kParentPid:
      return give(info.parentPid);
    case event_param::kUniquePid:
    case event_param::kUniquePidToo:
      return give(info.uniquePid);
    case event_param::kUniqueParentPid:
      return give(info.parentUniquePid);
    case event_param::kSessionId:
    case event_param::kSessionIdToo:
      return give(info.sessionId);
    case event_param::kImagePath:
      return give(info.imagePath);
    case event_param::kIsFake:
      return give(m_info.isFake);
    case event_param::kFromExec:
      return give(m_fromExec);
    case event_param::kState:
      return give(info.state);
    case event_param::kAlwaysZero:
      return give(kZero);
    case event_param::kWorkingDirectory:
      return give(info.workingDirectory);
    case event_param::kCommandLine:
      return info.commandLine ? give(*info.commandLine) : zym::ZYM_E_NOT_FOUND;
    default:
      ZYM_TRACE(GetTracer(), kCall, "Unsupported param 0x" << zym::trace::hex << param);
      return zym::ZYM_E_NOT_SUPPORTED;
  }
}

bool Event::Complete() try {
  switch (m_type) {
    case event_type::kExitProcess:
      m_context->eventInfoProvider->OnExitProcess(m_info);
      return !m_info.skip;
    case event_type::kCreateProcess:
      return OnCreateProcess();
    default:
      return false;
  }
} catch (...) {
  zym::ExceptionInFunctionToResult(GetTracer(), "Complete");
  return false;
}

bool Event::OnCreateProcess() {
  CollectStatistics();
  const bool completed = m_fromExec != 0 && m_info.info.state == kTerminated && CompleteFromListener();
  // A process that is not known any more is told by the no-event flag, which the provider has set then.
  static_cast<void>(m_context->eventInfoProvider->OnCreateProcess(completed, m_info));
  return !m_info.skip;
}

bool Event::IsCounted() const {
  const process_cache::ProcessInformation& info = m_info.info;
  if (!m_context->scanStatisticsCollector || info.imagePath.empty()) return false;
  if ((info.flags & (kSystemProcess | kNoBackingImage)) != 0) return false;
  const auto parentPid = static_cast<pid_t>(info.parentPid);
  if (parentPid == m_context->ownPid) return false;
  if (!m_context->startedByWatchdog) return true;
  return parentPid != m_context->ownParentPid && info.imagePath != WatchdogPath(GetTracer());
}

void Event::CollectStatistics() {
  if (!IsCounted()) return;
  IScanStatisticsCollector* const m_scanStatisticCollector = m_context->scanStatisticsCollector.get();
  zym::types::string16_t imagePath = m_info.info.imagePath;
  ZYM_REPORT_RESULT(GetTracer(),
                    m_scanStatisticCollector->RegisterScannedProcessFilePath(std::move(imagePath)));
}

// The process died before /proc could be read; the listener knows what is not there any more.
bool Event::CompleteFromListener() {
  if (!m_execInformationSource) return false;
  zym::intrusive_ptr<IExecStringsProvider> provider;
  if (!ZYM_SUCCEEDED(zym::QueryInterface(m_execInformationSource, provider.Ref()))) return false;
  zym::types::vector_t<zym::types::string_t> strings;
  const auto fd = static_cast<std::uint32_t>(m_imageFd);  // all ones when there is none
  if (!ZYM_SUCCEEDED(provider->GetExecStrings(kExecStringsTimeout, m_info.info.pid, fd, strings)))
    return false;
  TakeExecStrings(strings);
  return true;
}

void Event::TakeExecStrings(const zym::types::vector_t<zym::types::string_t>& strings) {
  if (strings.empty()) return;
  std::string arguments;
  for (std::size_t i = 1; i < strings.size(); ++i) {
    if (i > 1) arguments += ' ';
    arguments += strings[i];
  }
  const bool open = m_context->categoryFilter &&
                    m_context->categoryFilter->Check(zym::ITracerCategoryFilter::kSensitive) == zym::ZYM_OK;
  ZYM_TRACE(GetTracer(), kCall,
            "OnCreateProcess: "
                << "image path: " << strings.front()
                << ", command line: " << (open ? std::string_view(arguments) : zym::kSkippedByPrivacyPolicy));

  if (auto path = zym::Utf8ToUtf16(strings.front()))
    m_info.info.imagePath = std::move(*path);
  else
    ZYM_TRACE(GetTracer(), kFailure, "Failed to convert image path: " << strings.front());

  if (auto commandLine = zym::Utf8ToUtf16(arguments))
    m_info.info.commandLine = std::make_shared<const zym::types::string16_t>(std::move(*commandLine));
  else
    ZYM_TRACE(GetTracer(), kFailure,
              "Failed to convert command line: " << (open ? std::string_view(arguments)
                                                          : zym::kSkippedByPrivacyPolicy));
}

zym::types::string16_t Event::ToString() {
  std::string text = m_info.isFake ? "fake " : "";
  text += EventTypeText(m_type) + ", seq: " + std::to_string(m_info.sequence) + ", ";
  text += DescribeProcess(m_info.info, m_context->categoryFilter.get());
  return zym::Utf8ToUtf16(text).value_or(zym::types::string16_t());
}

}  // namespace qor::process_manager
