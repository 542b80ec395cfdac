#include "process_manager/facade/interceptor.h"

#include <atomic>
#include <utility>

#include "process_manager/interception/event_names.h"
#include "process_manager/interception/filter.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;
using zym::trace::kWarning;
namespace event_type = system_interceptors::event_type;

// Filter ids, over all tables: an operation can pass its list of ids to every table without knowing where
// each belongs. Never reused.
std::uint32_t NextFilterId() {
  static std::atomic<std::uint32_t> next{0};
  return next.fetch_add(1);
}

}  // namespace

Interceptor::Interceptor(zym::IServiceLocator* locator)
    : ServiceProvider(locator),
      m_eventDispatcher(zym::CreateObject<non_blocking::EventDispatcher>(locator)),
      m_systemEventsFactory(zym::CreateObject<SystemEventsFactory>(locator)),
      m_nonBlockingInterceptor(zym::CreateObject<non_blocking::NetlinkInterceptor>(locator, m_eventDispatcher,
                                                                                   m_systemEventsFactory)) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  ZYM_CHECK_RESULT_OR_THROW(
      zym::GetInterface(GetServiceLocator(), m_blockingInterceptorSettingsSubscription.Ref()),
      "Cannot get qor::process_manager::IInterceptorSettingsSubscription");
}

Interceptor::~Interceptor() {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
}

// --- filters ---

zym::result_t Interceptor::GetOfflineLog() {
  ZYM_TRACE(GetTracer(), kWarning, __func__ << ": GetOfflineLog is not implemented yet");
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

zym::result_t Interceptor::RefuseType(const char* function, std::uint32_t type) {
  ZYM_TRACE(GetTracer(), kWarning, function << ": Filter is not supported: " << EventTypeText(type));
  return zym::ZYM_E_NOT_SUPPORTED;
}

zym::result_t Interceptor::RegisterBlockingFilterAttachHandler(const FilterDescriptor& descriptor,
                                                               bool enabled, std::uint32_t flags,
                                                               std::uint32_t timeout,
                                                               IBlockingEventHandler* handler,
                                                               std::uint32_t* id) {
  ZYM_CHECK(GetTracer(), id != nullptr, zym::ZYM_E_INVALID_ARGUMENT);
  *id = NextFilterId();  // consumed even if the rest fails
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << "() " << enabled << ", h: " << (handler != nullptr)
                     << ", func: " << EventTypeText(descriptor.type) << ", flags: " << flags
                     << ", timeout: " << timeout << ", id: " << *id);
  const std::scoped_lock lock(m_mutex);
  return RefuseType(__func__, descriptor.type);
}

zym::result_t Interceptor::RegisterNonBlockingFilterAttachHandler(const FilterDescriptor& descriptor,
                                                                  bool enabled, std::uint32_t flags,
                                                                  INonBlockingEventHandler* handler,
                                                                  std::uint32_t* id) {
  return RegisterNonBlocking(__func__, descriptor, enabled, flags, handler, id);
}

// Inert until a handler is attached.
zym::result_t Interceptor::RegisterFilter(const FilterDescriptor& descriptor, bool enabled,
                                          std::uint32_t flags, std::uint32_t* id) {
  return RegisterNonBlocking(__func__, descriptor, enabled, flags, nullptr, id);
}

zym::result_t Interceptor::RegisterNonBlocking(const char* function, const FilterDescriptor& descriptor,
                                               bool enabled, std::uint32_t flags,
                                               INonBlockingEventHandler* handler, std::uint32_t* id) try {
  ZYM_CHECK(GetTracer(), id != nullptr, zym::ZYM_E_INVALID_ARGUMENT);
  *id = NextFilterId();
  ZYM_TRACE(GetTracer(), kCall,
            function << "() " << enabled << ", h: " << (handler != nullptr) << ", func: "
                     << EventTypeText(descriptor.type) << ", flags: " << flags << ", id: " << *id);
  non_blocking::Filter filter{
      .enabled = enabled,
      .handler = zym::intrusive_ptr<INonBlockingEventHandler>(handler),
      .descriptor = descriptor,
      .id = *id,
      .flags = flags,
  };
  const std::scoped_lock lock(m_mutex);
  switch (descriptor.type) {
    case event_type::kCreateProcess:
    case event_type::kExitProcess:
      return m_nonBlockingInterceptor->RegisterFilter(std::move(filter));
    default:
      return RefuseType(function, descriptor.type);
  }
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), function);
}

template <class Operation>
zym::result_t Interceptor::ForEachTable(const char* function, const char* arguments,
                                        Operation operation) try {
  const std::scoped_lock lock(m_mutex);
  for (const Table& table : Tables())
    ZYM_CHECK_RESULT_AS(GetTracer(), table.name << "->" << function << "(" << arguments << ")",
                        operation(table.filters));
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), function);
}

zym::result_t Interceptor::DeleteFilters(FilterIds filterIds) {
  return ForEachTable(__func__, "filterIds", [&](auto& table) { return table.DeleteFilters(filterIds); });
}

zym::result_t Interceptor::EnableFilters(FilterIds filterIds) {
  return ForEachTable(__func__, "filterIds", [&](auto& table) { return table.EnableFilters(filterIds); });
}

zym::result_t Interceptor::DisableFilters(FilterIds filterIds) {
  return ForEachTable(__func__, "filterIds", [&](auto& table) { return table.DisableFilters(filterIds); });
}

zym::result_t Interceptor::EnableDisableFilters(FilterIds filtersToEnable, FilterIds filtersToDisable) {
  return ForEachTable(__func__, "filtersToEnable, filtersToDisable", [&](auto& table) {
    return table.EnableDisableFilters(filtersToEnable, filtersToDisable);
  });
}

zym::result_t Interceptor::AttachHandler(std::uint32_t filterId, INonBlockingEventHandler* handler) {
  return ForEachTable(__func__, "filterId, handler",
                      [&](auto& table) { return table.AttachHandler(filterId, handler); });
}

zym::result_t Interceptor::DetachHandler(std::uint32_t filterId) {
  return ForEachTable(__func__, "filterId", [&](auto& table) { return table.DetachHandler(filterId); });
}

zym::result_t Interceptor::GetFilterStatus(std::uint32_t filterId, bool* enabled) {
  const std::scoped_lock lock(m_mutex);
  for (const Table& table : Tables())
    if (ZYM_SUCCEEDED(table.filters.GetFilterStatus(filterId, enabled))) return zym::ZYM_OK;
  return zym::ZYM_E_NOT_FOUND;
}

// --- sources ---

zym::result_t Interceptor::EnableNonBlockingInterceptor(std::uint32_t type) try {
  const std::scoped_lock lock(m_mutex);
  ZYM_CHECK_RESULT(GetTracer(), m_nonBlockingInterceptor->Start(type));
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t Interceptor::DisableNonBlockingInterceptor(std::uint32_t type) try {
  const std::scoped_lock lock(m_mutex);
  // It traces its failure; the host can do nothing about it.
  static_cast<void>(m_nonBlockingInterceptor->Stop(type));
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

}  // namespace qor::process_manager
