#include "host_kit/feature_lookup.h"

#include <utility>

namespace host_kit {

FeatureLookup::FeatureLookup(std::map<std::string, bool> switches) : m_switches(std::move(switches)) {}

zym::result_t FeatureLookup::GetBoolean(const char* name, bool* value) {
  const auto found = m_switches.find(name);
  if (found == m_switches.end()) return zym::ZYM_E_NOT_FOUND;
  *value = found->second;
  return zym::ZYM_OK;
}

}  // namespace host_kit
