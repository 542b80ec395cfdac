// A host around the loaded module, with the objects that the module takes back from the locator.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host_kit/bootstrap.h"
#include "module/loaded_module.h"
#include "process_manager/event_processing.h"
#include "process_manager/interceptor.h"
#include "process_manager/interceptor_settings.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_cache.h"
#include "support/fake_services.h"
#include "zym/object.h"

namespace test_support {

// What a handler saw.
struct SeenEvent {
  std::uint32_t type = 0;
  std::uint64_t sequence = 0;
  std::uint32_t pid = 0;
  std::uint32_t parentPid = 0;
  std::uint32_t creatorPid = 0;
  std::uint64_t uniquePid = 0;
  std::uint32_t fromExec = 0;
  std::uint32_t state = 0;
  std::u16string imagePath;
  std::optional<std::u16string> commandLine;
  std::optional<std::uint32_t> realUserId;
  std::uint64_t mountNamespace = 0;
  std::string image;  // the beginning of the executable, when the event carries it
};

// Records events, and lets a test wait for one.
class RecordingHandler
    : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
 public:
  void OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t filterId) override;

  // The events so far.
  std::vector<SeenEvent> Events() const;
  // Waits until an event fits, however long that takes up to a generous deadline.
  std::optional<SeenEvent> WaitFor(const std::function<bool(const SeenEvent&)>& fits) const;

 private:
  mutable std::mutex m_mutex;  // guards m_events
  mutable std::condition_variable m_arrived;
  std::vector<SeenEvent> m_events;
};

// Everything in place but the interceptor itself.
class ModuleHost {
 public:
  // `tracer`: in place of the recording one.
  explicit ModuleHost(const zym::intrusive_ptr<zym::ITracer>& tracer = {});

  zym::result_t CreateInterceptor(
      zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2>& interceptor) const {
    return module.Create(qor::class_ids::kInterceptor, host.locator.get(), interceptor);
  }

  LoadedModule module;  // goes last
  FakeHost host;

 private:
  host_kit::Bootstrap m_bootstrap;

 public:
  const zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> cache;
  const zym::intrusive_ptr<qor::procfs::IParser> parser;
  const zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsSubscription> settings;
};

}  // namespace test_support
