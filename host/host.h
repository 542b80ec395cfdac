// The reference host: every service in a locator, and the module's objects over it.
#pragma once

#include "host/module.h"
#include "host/options.h"
#include "host/service_locator.h"
#include "process_manager/interceptor.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_cache.h"
#include "process_manager/process_manager.h"
#include "process_manager/services/feature_techs.h"

namespace pmhost {

// Made in the order that a daemon needs: services, the module, the module's objects that it takes back from
// the locator. Ends in the opposite order; the module is unloaded last.
class Host {
 public:
  explicit Host(const GlobalOptions& options);
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // The facade of all event sources; made at the first call.
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> GetInterceptor();

  // The module's manager of processes; made at the first call.
  zym::intrusive_ptr<system_interceptors::process_manager::IProcessManager> GetProcessManager();

  // The module's reader of /proc.
  [[nodiscard]] const zym::intrusive_ptr<qor::procfs::IParser>& GetParser() const { return m_parser; }

  // A further object of one of the module's factories. Throws Failure.
  template <class I>
  zym::intrusive_ptr<I> Make(std::uint32_t classId, const char* what) const {
    return m_module.Make<I>(classId, m_locator.get(), what);
  }

  [[nodiscard]] const zym::intrusive_ptr<qor::IFeatureTechsAggregator>& GetFeatures() const {
    return m_features;
  }
  [[nodiscard]] const zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider>& GetCache() const {
    return m_cache;
  }

 private:
  void AddModuleServices();
  void Release();

  zym::intrusive_ptr<ServiceLocator> m_locator;
  Module m_module;
  zym::intrusive_ptr<qor::IFeatureTechsAggregator> m_features;
  zym::intrusive_ptr<qor::procfs::IParser> m_parser;
  zym::intrusive_ptr<system_interceptors::process_manager::IProcessManager> m_processManager;
  zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> m_cache;
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> m_interceptor;
};

}  // namespace pmhost
