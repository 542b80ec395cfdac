// Filter: which events go to which handler.
#pragma once

#include <cstdint>

#include "process_manager/event_processing.h"
#include "process_manager/interceptor.h"
#include "zym/intrusive_ptr.h"

namespace qor::process_manager {

using FilterDescriptor = system_interceptors::interceptor_facade::FilterDescriptor;

namespace non_blocking {

struct Filter {
  using Handler = system_interceptors::event_processing::INonBlockingEventHandler;

  bool enabled = false;
  zym::intrusive_ptr<Handler> handler;  // null: the filter is inert
  FilterDescriptor descriptor;
  std::uint32_t id = 0;
  std::uint32_t flags = 0;
  std::uint32_t inUse = 0;  // how many calls of the handler are running
};

}  // namespace non_blocking

namespace blocking {

struct Filter {
  using Handler = system_interceptors::event_processing::IBlockingEventHandler;

  bool enabled = false;
  zym::intrusive_ptr<Handler> handler;
  FilterDescriptor descriptor;
  std::uint32_t id = 0;
  std::uint32_t flags = 0;
  std::uint32_t timeout = 0;
  std::uint32_t inUse = 0;
};

}  // namespace blocking
}  // namespace qor::process_manager
