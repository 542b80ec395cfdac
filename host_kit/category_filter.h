// Which kinds of text may go to the trace.
#pragma once

#include <cstdint>

#include "zym/object.h"
#include "zym/tracer.h"

namespace host_kit {

// Any thread.
class CategoryFilter : public zym::object::Ifaces<zym::ITracerCategoryFilter> {
 public:
  // `allowSensitive`: command lines and environments too. Everything else may always be traced.
  explicit CategoryFilter(bool allowSensitive) : m_allowSensitive(allowSensitive) {}

  zym::result_t Check(std::uint32_t category) override {
    return category != kSensitive || m_allowSensitive ? zym::ZYM_OK : zym::ZYM_FALSE;
  }

 private:
  const bool m_allowSensitive;
};

}  // namespace host_kit
