// The source of process events, turned on.
#pragma once

#include <cstdint>

#include "process_manager/interceptor.h"
#include "zym/intrusive_ptr.h"

namespace pmhost {

// On from construction to destruction. Throws Failure, with the right that is missing.
class NetlinkSource {
 public:
  // Throws Failure without the right; nothing is begun.
  static void RequireRight();

  NetlinkSource(const zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2>& interceptor,
                std::uint32_t type);
  ~NetlinkSource();
  NetlinkSource(const NetlinkSource&) = delete;
  NetlinkSource& operator=(const NetlinkSource&) = delete;

 private:
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> m_control;
  std::uint32_t m_type;
};

}  // namespace pmhost
