#include "process_manager/facade/application_manager.h"

#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;
using zym::trace::kFailure;

}  // namespace

zym::result_t ApplicationManager::CreateApplication(const ApplicationId& id, Priority /*priority*/,
                                                    IApplication** application) try {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  auto created = zym::CreateObject<Application>(GetServiceLocator());
  {
    const std::scoped_lock lock(m_mutex);
    if (!m_applications.try_emplace(id, created).second) return zym::ZYM_E_ALREADY_DONE;
  }
  *application = created.Detach();
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ApplicationManager::DeleteApplication(const ApplicationId& id) {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  decltype(m_applications)::node_type deleted;
  {
    const std::scoped_lock lock(m_mutex);
    deleted = m_applications.extract(id);
  }
  if (deleted.empty()) {
    ZYM_TRACE(GetTracer(), kFailure, __PRETTY_FUNCTION__);
    return zym::ZYM_E_NOT_FOUND;
  }
  return zym::ZYM_OK;
}

zym::result_t ApplicationManager::OpenApplication(const ApplicationId& id, IApplication** application) {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  const std::scoped_lock lock(m_mutex);
  const auto found = m_applications.find(id);
  if (found == m_applications.end()) return zym::ZYM_E_NOT_FOUND;
  *application = zym::intrusive_ptr<Application>(found->second).Detach();
  return zym::ZYM_OK;
}

}  // namespace qor::process_manager
