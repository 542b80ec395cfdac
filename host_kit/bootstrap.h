// The module at work in a host: its services, the objects that it takes back from them, and its interceptor.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host_kit/default_services.h"
#include "host_kit/loaded_module.h"
#include "host_kit/process_guard.h"
#include "host_kit/procfs_reader.h"
#include "host_kit/service_locator.h"
#include "process_manager/interceptor.h"
#include "process_manager/interceptor_settings.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_cache.h"
#include "process_manager/process_manager.h"
#include "process_manager/services/feature_techs.h"

namespace host_kit {

struct BootstrapOptions {
  // Read every process that runs already. Events of them are complete then: their users, parents and flags
  // are known, and their end is reported. It costs as much as one list of all processes. A host that declines
  // gets no exit event of a process that began earlier, unless the cache has met it since: by an exec, as a
  // parent, or by a question.
  bool enumerate = true;
  // Put a ProcessGuard in front of the module's cache, under both of its ids (process_guard.h says what it
  // mends). A host that declines has the module's cache there, with its bounds (docs/limits.md).
  bool guard = true;
  // Put a ProcfsReader with these limits in front of the module's reader of /proc. Without it a process with
  // a line end in its name, a command line that is not UTF-8 or a path that is too deep isn't read at all,
  // and texts are kept as long as they are.
  std::optional<ReadLimits> reader = ReadLimits{};
};

// Makes the aggregator of features, and the module's reader of /proc, its settings subscription and its
// cache with a guard in front, in the order in which they need each other, and offers them in the locator,
// from where the module takes them again. All goes in the opposite order at destruction, which empties the
// locator. Before that, release every object that was made here or taken from here, or the module stays
// loaded. Declare it behind the module. Any thread.
class Bootstrap {
 public:
  // `module` must outlive it. `services` must have what MakeDefaultServices has, but for the switches; a
  // feature aggregator of the host's own in it is left in place. Throws Failure: it names every service that
  // is missing, with the locator left alone; or it says what the module cannot make, and the locator is empty
  // then.
  explicit Bootstrap(const LoadedModule& module,
                     zym::intrusive_ptr<ServiceLocator> services = MakeDefaultServices(),
                     const BootstrapOptions& options = {});
  ~Bootstrap();
  Bootstrap(const Bootstrap&) = delete;
  Bootstrap& operator=(const Bootstrap&) = delete;

  [[nodiscard]] zym::IServiceLocator* GetLocator() const { return m_locator.get(); }

  // What stands in the locator: the reader and the guard of the kit where they are in front.
  [[nodiscard]] const zym::intrusive_ptr<qor::IFeatureTechsAggregator>& GetFeatures() const {
    return m_features;
  }
  [[nodiscard]] const zym::intrusive_ptr<qor::procfs::IParser>& GetParser() const { return m_parser; }
  [[nodiscard]] const zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider>& GetCache() const {
    return m_cache;
  }
  // Null when the options declined it.
  [[nodiscard]] const zym::intrusive_ptr<ProcessGuard>& GetGuard() const { return m_guard; }
  // IInterceptorSettingsHolder, by which a host changes the settings, is another interface of it.
  [[nodiscard]] const zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsSubscription>&
  GetSettings() const {
    return m_settings;
  }

  // Processes as objects, and the facade of all event sources. Each is made at the first call and kept. Throw
  // Failure.
  [[nodiscard]] zym::intrusive_ptr<system_interceptors::process_manager::IProcessManager> GetProcessManager()
      const;
  [[nodiscard]] zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> GetInterceptor()
      const;

  // All processes, the kernel last; those that end meanwhile or can't be read are left out. The cache knows
  // them from then on. Throws Failure.
  [[nodiscard]] std::vector<system_interceptors::process_manager::ProcessInformation> ListProcesses() const;

  // Whether the options asked for the enumeration.
  [[nodiscard]] bool Enumerates() const { return m_enumerates; }
  // Reads every process that the cache doesn't know yet; costs little where it knows most. With a source that
  // runs it is for a host with a guard: without one, a process that ends while it is read stays in the cache
  // as one that runs. Throws Failure.
  void MeetProcesses() const { static_cast<void>(Enumerate()); }

  // A further object of one of the module's factories. Throws Failure.
  template <class I>
  [[nodiscard]] zym::intrusive_ptr<I> Make(std::uint32_t classId, const std::string& what) const {
    return m_module.Make<I>(classId, m_locator.get(), what);
  }

 private:
  // Services that were added to the locator, removed from it in the opposite order, and then all the others.
  class OfferedServices {
   public:
    explicit OfferedServices(zym::intrusive_ptr<ServiceLocator> locator);
    ~OfferedServices();
    OfferedServices(const OfferedServices&) = delete;
    OfferedServices& operator=(const OfferedServices&) = delete;

    template <class I>
    void Add(const zym::intrusive_ptr<I>& service) {
      m_iids.push_back(I::kIid);
      m_locator->Add<I>(service);
    }

   private:
    const zym::intrusive_ptr<ServiceLocator> m_locator;
    std::vector<zym::iid_t> m_iids;
  };

  zym::intrusive_ptr<qor::IFeatureTechsAggregator> OfferFeatures();
  zym::intrusive_ptr<qor::procfs::IParser> OfferParser(const std::optional<ReadLimits>& limits);
  zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsSubscription> OfferSettings();
  zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> OfferCache(bool guarded);
  zym::intrusive_ptr<system_interceptors::process_manager::IProcessInformationEnumerator> Enumerate() const;

  // In the order in which they are made; the last is released first.
  const LoadedModule& m_module;
  const zym::intrusive_ptr<ServiceLocator> m_locator;
  OfferedServices m_offered;
  const zym::intrusive_ptr<qor::IFeatureTechsAggregator> m_features;
  const zym::intrusive_ptr<qor::procfs::IParser> m_parser;
  const zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsSubscription> m_settings;
  zym::intrusive_ptr<ProcessGuard> m_guard;
  const zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> m_cache;
  const bool m_enumerates;
  mutable std::mutex m_mutex;  // guards the two below
  mutable zym::intrusive_ptr<system_interceptors::process_manager::IProcessManager> m_processManager;
  mutable zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> m_interceptor;
};

}  // namespace host_kit
