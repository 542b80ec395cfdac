#include "process_manager/process/user_localization.h"

#include <string>
#include <utility>

#include "process_manager/proc_parser.h"
#include "qor_common/language.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;

// The language that the process's environment names; empty if it names none.
std::string LanguageOf(procfs::IParser& parser, PidType pid) {
  std::string value;
  // A process that is gone or closed to us is one without a LANG; the parser has traced why.
  if (!ZYM_SUCCEEDED(parser.GetEnvironmentVariable(pid, "LANG", value))) return {};
  std::string language;
  if (!ZYM_SUCCEEDED(tools::ParseLanguage(value, language))) return {};
  return language;
}

}  // namespace

zym::result_t ProcessUserLocalizationProvider::FinalConstruct() try {
  zym::intrusive_ptr<IStartupDataProvider> startupDataProvider;
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), startupDataProvider.Ref()),
                   "Cannot get IStartupDataProvider interface");
  m_defaultLocalization = startupDataProvider->GetStartupData()->localization;
  m_startupDataProvider = std::move(startupDataProvider);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

void ProcessUserLocalizationProvider::FinalRelease() {
  m_startupDataProvider.Reset();
  m_defaultLocalization.clear();
}

zym::result_t ProcessUserLocalizationProvider::GetProcessUserLocalization(
    process_id_t pid, zym::types::string16_t& localization) try {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  zym::intrusive_ptr<procfs::IParser> procfsParser;
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), procfsParser.Ref()));
  const std::string language = LanguageOf(*procfsParser, pid);
  if (language.empty()) {
    ZYM_TRACE(GetTracer(), kCall, "Cannot get localization for " << pid << ", use default");
    localization = m_defaultLocalization;
    return zym::ZYM_OK;
  }
  localization.assign(language.begin(), language.end());  // ASCII
  ZYM_TRACE(GetTracer(), kCall, "localization: " << language);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

}  // namespace qor::process_manager
