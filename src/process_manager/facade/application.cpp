#include "process_manager/facade/application.h"

#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager {

zym::result_t Application::GetInterceptor(
    system_interceptors::interceptor_facade::IInterceptor** interceptor) try {
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), interceptor),
                   "Cannot get si_if::IInterceptor interface");
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

}  // namespace qor::process_manager
