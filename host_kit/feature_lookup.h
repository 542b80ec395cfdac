// The host's named switches.
#pragma once

#include <map>
#include <string>

#include "process_manager/services/feature_lookup.h"
#include "zym/object.h"

namespace host_kit {

// Fixed at construction. Any thread.
class FeatureLookup : public zym::object::Ifaces<qor::IFeatureLookup> {
 public:
  explicit FeatureLookup(std::map<std::string, bool> switches = {});

  zym::result_t GetBoolean(const char* name, bool* value) override;

 private:
  const std::map<std::string, bool> m_switches;
};

}  // namespace host_kit
