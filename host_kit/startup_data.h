// What a host knows of its machine and of itself when it starts.
#pragma once

#include "process_manager/services/startup_data.h"
#include "zym/object.h"

namespace host_kit {

// Whether the kernel lets this process watch with fanotify, and the language that LANG of its environment
// names: English if it names none. No watchdog.
qor::StartupData ReadStartupData();

// Any thread.
class StartupDataProvider : public zym::object::Ifaces<qor::IStartupDataProvider> {
 public:
  explicit StartupDataProvider(qor::StartupData data = ReadStartupData());

  const qor::StartupData* GetStartupData() override { return &m_data; }

 private:
  const qor::StartupData m_data;
};

}  // namespace host_kit
