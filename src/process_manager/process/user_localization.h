// The language of the user behind a process, from the process's own environment.
#pragma once

#include "process_manager/services/startup_data.h"
#include "process_manager/user_localization.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// Nothing in it changes after FinalConstruct. The locator is asked for the reader of /proc at each call.
class ProcessUserLocalizationProvider
    : public zym::object::Ifaces<IProcessUserLocalizationProvider>,
      public zym::ServiceProvider<zym::IServiceLocator, zym::IAllocator, zym::ITracer>,
      public zym::NonCopyable {
 public:
  // Throws zym::GetInterfaceException without an allocator or a tracer.
  explicit ProcessUserLocalizationProvider(zym::IServiceLocator* locator) : ServiceProvider(locator) {}

  // Takes the product's language from the startup data. Without a provider of those: the locator's code.
  zym::result_t FinalConstruct();
  void FinalRelease();

  zym::result_t GetProcessUserLocalization(process_id_t pid, zym::types::string16_t& localization) override;

 private:
  zym::types::string16_t m_defaultLocalization;
  zym::intrusive_ptr<IStartupDataProvider> m_startupDataProvider;
};

}  // namespace qor::process_manager
