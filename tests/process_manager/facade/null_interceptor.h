// An interceptor to be found in a locator: it answers that it has nothing to do.
#pragma once

#include "process_manager/interceptor.h"
#include "zym/object.h"

namespace test_support {

class NullInterceptor : public zym::object::Ifaces<system_interceptors::interceptor_facade::IInterceptor> {
 public:
  using Descriptor = system_interceptors::interceptor_facade::FilterDescriptor;
  using FilterIds = system_interceptors::interceptor_facade::FilterIds;

  zym::result_t GetOfflineLog() override { return zym::ZYM_FALSE; }
  zym::result_t RegisterBlockingFilterAttachHandler(
      const Descriptor&, bool, std::uint32_t, std::uint32_t,
      system_interceptors::event_processing::IBlockingEventHandler*, std::uint32_t*) override {
    return zym::ZYM_FALSE;
  }
  zym::result_t RegisterNonBlockingFilterAttachHandler(
      const Descriptor&, bool, std::uint32_t,
      system_interceptors::event_processing::INonBlockingEventHandler*, std::uint32_t*) override {
    return zym::ZYM_FALSE;
  }
  zym::result_t RegisterFilter(const Descriptor&, bool, std::uint32_t, std::uint32_t*) override {
    return zym::ZYM_FALSE;
  }
  zym::result_t DeleteFilters(FilterIds) override { return zym::ZYM_FALSE; }
  zym::result_t EnableFilters(FilterIds) override { return zym::ZYM_FALSE; }
  zym::result_t DisableFilters(FilterIds) override { return zym::ZYM_FALSE; }
  zym::result_t ReservedOperation() override { return zym::ZYM_FALSE; }
};

}  // namespace test_support
