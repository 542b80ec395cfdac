#include "process_manager/process/process_information.h"

#include "process_manager/proc_parser.h"
#include "process_manager/process/process_description.h"
#include "process_manager/process/tools.h"
#include "process_manager/process_cache.h"
#include "process_manager/procfs/proc_own_namespace.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;

zym::intrusive_ptr<zym::ITracerCategoryFilter> TakeCategoryFilter(zym::IServiceLocator* locator) {
  zym::intrusive_ptr<zym::ITracerCategoryFilter> filter;
  ZYM_CHECK_RESULT_OR_THROW(zym::GetInterface(locator, filter.Ref()),
                            "Cannot get zym::ITracerCategoryFilter interface");
  return filter;
}

zym::intrusive_ptr<IProcessInfoProvider> TakeCache(zym::IServiceLocator* locator) {
  zym::intrusive_ptr<IProcessInfoProvider> cache;
  ZYM_CHECK_RESULT_OR_THROW(zym::GetInterface(locator, cache.Ref()),
                            "Cannot get IProcessInfoProvider interface");
  return cache;
}

}  // namespace

ProcessInformation::ProcessInformation(zym::IServiceLocator* locator, PidType pid, bool full)
    : ProcessInformation(locator, pid, std::nullopt, full) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() " << pid);
}

ProcessInformation::ProcessInformation(zym::IServiceLocator* locator, const UniquePidType& uniquePid,
                                       bool full)
    : ProcessInformation(locator, std::nullopt, uniquePid, full) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() " << uniquePid << " (" << PidOf(uniquePid) << ")");
}

ProcessInformation::ProcessInformation(zym::IServiceLocator* locator, std::optional<PidType> pid,
                                       std::optional<UniquePidType> uniquePid, bool full)
    : ServiceProvider(locator), m_pid(pid), m_uniquePid(uniquePid) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  m_tracerCategoryFilter = TakeCategoryFilter(locator);
  const zym::intrusive_ptr<IProcessInfoProvider> cache = TakeCache(locator);
  const bool known = m_pid ? cache->Get(static_cast<pid_t>(*m_pid), m_info)
                           : cache->GetByUniquePid(m_uniquePid.value(), m_info);
  if (!known) {
    ZYM_TRACE(GetTracer(), kCall,
              __func__ << ": Process info is missing in cache, trying to read info from procfs");
    ZYM_CHECK_RESULT_OR_THROW(GetInfoFromProcfs(locator, full ? kFull : kBase));
    cache->Update(m_info);
  } else if (full && LacksAdditionalInfo()) {
    if (GetInfoFromProcfs(locator, kAdditional) == zym::ZYM_OK) {
      ZYM_TRACE(
          GetTracer(), kCall,
          __func__ << ": Process info is found in cache and is going to be fulfilled with additional info: "
                   << Describe());
      ZYM_CHECK_OR_THROW(cache->UpdateAdditionalInfo(m_info), "Cannot update additional info in cache");
    }
  } else {
    ZYM_TRACE(GetTracer(), kCall, __func__ << ": Using cached process info: " << Describe());
  }
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- ");
}

// Of the kernel everything is known. A process without any environment is read again at each full look.
bool ProcessInformation::LacksAdditionalInfo() const {
  return m_info.pid != 0 && (m_info.environment.empty() || !m_info.effectiveGroupId || !m_info.realGroupId);
}

zym::result_t ProcessInformation::GetInfoFromProcfs(zym::IServiceLocator* locator, ReadLevel level) {
  zym::intrusive_ptr<procfs::IParser> parser;
  ZYM_CHECK_RESULT_AS(GetTracer(), "zym::GetInterface(sl, procfs.Ref())",
                      zym::GetInterface(locator, parser.Ref()), "Cannot get procfs::IParser interface");
  const PidType pid = m_pid ? *m_pid : PidOf(m_uniquePid.value());
  switch (level) {
    case kBase:
      return ZYM_REPORT_RESULT_AS(GetTracer(), "GetProcessInfo(tracer, procfs, pid, m_info)",
                                  GetProcessInfo(GetTracer(), parser.get(), pid, m_info),
                                  "Failed to obtain base process info for pid=" << pid);
    case kFull:
      return ZYM_REPORT_RESULT_AS(GetTracer(), "GetFullProcessInfo(tracer, procfs, pid, m_info)",
                                  GetFullProcessInfo(GetTracer(), parser.get(), pid, m_info),
                                  "Failed to obtain full process info for pid=" << pid);
    case kAdditional:
      return ZYM_REPORT_RESULT_AS(GetTracer(), "GetAdditionalProcessInfo(tracer, procfs, m_info)",
                                  GetAdditionalProcessInfo(GetTracer(), parser.get(), m_info),
                                  "Failed to obtain additional process info for pid=" << pid);
  }
  return zym::ZYM_E_UNEXPECTED;
}

std::string ProcessInformation::Describe() const {
  return DescribeProcess(m_info, m_tracerCategoryFilter.get());
}

zym::result_t ProcessInformation::GetInformation(
    system_interceptors::process_manager::ProcessInformation& info) try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() " << Describe());
  info = system_interceptors::process_manager::ToPublicRecord(m_info);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcessInformation::GetEnvironmentVariables(
    zym::types::vector_t<zym::types::string_t>& variables) try {
  ZYM_CHECK_AS(GetTracer(), "!m_info.m_environmentVariables.empty()", !m_info.environment.empty(),
               zym::ZYM_E_NOT_FOUND, "environ not found for process with pid: " << m_info.pid);
  variables = m_info.environment;
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcessInformation::GetAuditUserId(std::uint32_t&) {
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

zym::result_t ProcessInformation::GetUserName(zym::types::string_t&) {
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

zym::result_t ProcessInformation::GetRealUserId(std::uint32_t& id) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  ZYM_CHECK_AS(GetTracer(), "ruid.has_value()", m_info.realUserId, zym::ZYM_E_NOT_FOUND,
               "ruid not found for process with pid: " << m_info.pid);
  id = *m_info.realUserId;
  return zym::ZYM_OK;
}

zym::result_t ProcessInformation::GetEffectiveUserId(std::uint32_t& id) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  ZYM_CHECK_AS(GetTracer(), "euid.has_value()", m_info.effectiveUserId, zym::ZYM_E_NOT_FOUND,
               "euid not found for process with pid: " << m_info.pid);
  id = *m_info.effectiveUserId;
  return zym::ZYM_OK;
}

zym::result_t ProcessInformation::GetGroupName(zym::types::string_t&) {
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

zym::result_t ProcessInformation::GetRealGroupId(std::uint32_t& id) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  ZYM_CHECK_AS(GetTracer(), "rgid.has_value()", m_info.realGroupId, zym::ZYM_E_NOT_FOUND,
               "rgid not found for process with pid: " << m_info.pid);
  id = *m_info.realGroupId;
  return zym::ZYM_OK;
}

zym::result_t ProcessInformation::GetEffectiveGroupId(std::uint32_t& id) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  ZYM_CHECK_AS(GetTracer(), "egid.has_value()", m_info.effectiveGroupId, zym::ZYM_E_NOT_FOUND,
               "egid not found for process with pid: " << m_info.pid);
  id = *m_info.effectiveGroupId;
  return zym::ZYM_OK;
}

zym::result_t ProcessInformation::IsHostMountNamespace() {
  const zym::result_t result =
      m_info.mountNamespaceId == procfs::OwnMountNamespaceId() ? zym::ZYM_OK : zym::ZYM_FALSE;
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- " << result);
  return result;
}

zym::result_t ProcessInformation::GetMountNamespaceId(std::uint64_t& id) {
  id = m_info.mountNamespaceId;
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- namespaceId=" << id);
  return zym::ZYM_OK;
}

}  // namespace qor::process_manager
