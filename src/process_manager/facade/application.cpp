#include "process_manager/facade/application.h"

#include "zym/trace.h"

namespace qor::process_manager {

zym::result_t Application::GetInterceptor(
    system_interceptors::interceptor_facade::IInterceptor** interceptor) {
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), interceptor),
                   "Cannot get si_if::IInterceptor interface");
  return zym::ZYM_OK;
}

}  // namespace qor::process_manager
