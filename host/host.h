// The reference host: every service in a locator, and the module at work over it.
#pragma once

#include <cstdint>

#include "host/options.h"
#include "host_kit/bootstrap.h"
#include "host_kit/loaded_module.h"

namespace pmhost {

// The module is unloaded last. An object of it that is still alive then is reported on standard error, and
// the module stays loaded.
class Host {
 public:
  // Throws Failure.
  explicit Host(const GlobalOptions& options);
  ~Host() = default;
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Each is made once.
  [[nodiscard]] const zym::intrusive_ptr<qor::IFeatureTechsAggregator>& GetFeatures() const {
    return m_bootstrap.GetFeatures();
  }
  [[nodiscard]] const zym::intrusive_ptr<qor::procfs::IParser>& GetParser() const {
    return m_bootstrap.GetParser();
  }
  [[nodiscard]] const zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider>& GetCache() const {
    return m_bootstrap.GetCache();
  }
  // These two at the first call. They throw Failure.
  [[nodiscard]] zym::intrusive_ptr<system_interceptors::process_manager::IProcessManager> GetProcessManager()
      const {
    return m_bootstrap.GetProcessManager();
  }
  [[nodiscard]] zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> GetInterceptor()
      const {
    return m_bootstrap.GetInterceptor();
  }

  // A further object of one of the module's factories. Throws Failure.
  template <class I>
  zym::intrusive_ptr<I> Make(std::uint32_t classId, const char* what) const {
    return m_bootstrap.Make<I>(classId, what);
  }

 private:
  // Reports a module that stays loaded.
  class Module : public host_kit::LoadedModule {
   public:
    using LoadedModule::LoadedModule;
    ~Module();
  };

  Module m_module;
  host_kit::Bootstrap m_bootstrap;
};

}  // namespace pmhost
