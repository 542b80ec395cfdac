#include "process_manager/interception/event.h"

#include <type_traits>
#include <utility>

#include "process_manager/interception/event_names.h"
#include "process_manager/process/process_description.h"
#include "qor_common/file_io.h"
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

Event::Subject SubjectOf(std::uint32_t type, const process_cache::ProcessInformation& info) {
  if (type == event_type::kExitProcess) return {info.pid, info.uniquePid};
  return {info.creatorPid, info.creatorUniquePid};
}

}  // namespace

Event::Event(std::shared_ptr<const EventContext> context, std::uint32_t type, process_cache::EventInfo&& info,
             const zym::intrusive_ptr<IExecListener>& listener, ImageDescriptors descriptors)
    : m_context(std::move(context)),
      m_info(std::move(info)),
      m_type(type),
      m_pid(m_info.info.pid),
      m_cpid(m_info.info.creatorPid),
      m_subject(SubjectOf(type, m_info.info)),
      m_fromExec(m_info.isFork ? 0 : 1) {
  if (descriptors.file) PutImage(std::move(descriptors));
  if (listener) static_cast<void>(zym::QueryInterface(listener, m_execInformationSource.Ref()));
}

void Event::PutImage(ImageDescriptors descriptors) noexcept try {
  const int fd = descriptors.file.Get();
  const auto io = zym::CreateObject<IO>(m_context->GetLocator(), fd, descriptors.directory.Get(),
                                        static_cast<ino_t>(m_info.info.mountNamespaceId), true);
  // The stream owns them from here on.
  static_cast<void>(descriptors.file.Release());
  static_cast<void>(descriptors.directory.Release());
  zym::objptr_t<zym::IObject> object;
  static_cast<void>(zym::QueryInterface(io, object.Ref()));
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
      m_context->GetEventInfoProvider()->OnExitProcess(m_info);
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
  static_cast<void>(m_context->GetEventInfoProvider()->OnCreateProcess(completed, m_info));
  return !m_info.skip;
}

void Event::CollectStatistics() noexcept try {
  if (!m_context->IsCounted(m_info.info)) return;
  IScanStatisticsCollector* const m_scanStatisticCollector = m_context->GetScanStatisticsCollector();
  zym::types::string16_t imagePath = m_info.info.imagePath;
  ZYM_REPORT_RESULT(GetTracer(),
                    m_scanStatisticCollector->RegisterScannedProcessFilePath(std::move(imagePath)));
} catch (...) {
  zym::ExceptionInFunctionToResult(GetTracer(), "CollectStatistics");
}

// The process died before /proc could be read; the listener knows what is not there any more.
bool Event::CompleteFromListener() noexcept try {
  if (!m_execInformationSource) return false;
  zym::intrusive_ptr<IExecStringsProvider> provider;
  if (!ZYM_SUCCEEDED(zym::QueryInterface(m_execInformationSource, provider.Ref()))) return false;
  zym::types::vector_t<zym::types::string_t> strings;
  const auto fd = static_cast<std::uint32_t>(m_imageFd);  // all ones when there is none
  if (!ZYM_SUCCEEDED(provider->GetExecStrings(kExecStringsTimeout, m_pid, fd, strings))) return false;
  if (strings.empty()) return false;
  TakeExecStrings(strings);
  return true;
} catch (...) {
  zym::ExceptionInFunctionToResult(GetTracer(), "OnCreateProcess");
  return false;
}

void Event::TakeExecStrings(const zym::types::vector_t<zym::types::string_t>& strings) {
  std::string arguments;
  for (std::size_t i = 1; i < strings.size(); ++i) {
    if (i > 1) arguments += ' ';
    arguments += strings[i];
  }
  const bool mayTrace =
      m_context->GetCategoryFilter()->Check(zym::ITracerCategoryFilter::kSensitive) == zym::ZYM_OK;
  const auto traced = [mayTrace](std::string_view text) {
    return zym::Utf8ToUtf16Lossy(mayTrace ? text : zym::kSkippedByPrivacyPolicy);
  };
  ZYM_TRACE(GetTracer(), kCall,
            "OnCreateProcess: "
                << "image path: " << std::u16string_view(zym::Utf8ToUtf16Lossy(strings.front()))
                << ", command line: " << std::u16string_view(traced(arguments)));

  if (auto path = zym::Utf8ToUtf16(strings.front()))
    m_info.info.imagePath = std::move(*path);
  else
    ZYM_TRACE(GetTracer(), kFailure,
              "OnCreateProcess: "
                  << "Failed to convert image path: "
                  << std::u16string_view(zym::Utf8ToUtf16Lossy(strings.front())));

  if (auto commandLine = zym::Utf8ToUtf16(arguments))
    m_info.info.commandLine = std::make_shared<const zym::types::string16_t>(std::move(*commandLine));
  else
    ZYM_TRACE(GetTracer(), kFailure,
              "OnCreateProcess: "
                  << "Failed to convert command line: " << std::u16string_view(traced(arguments)));
}

zym::types::string16_t Event::ToString() {
  std::string text = m_info.isFake ? "fake " : "";
  text += EventTypeText(m_type) + ", seq: " + std::to_string(m_info.sequence) + ", ";
  text += DescribeProcess(m_info.info, m_context->GetCategoryFilter());
  return zym::Utf8ToUtf16Lossy(text);
}

}  // namespace qor::process_manager
