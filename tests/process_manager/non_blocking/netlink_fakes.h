// What stands around the netlink source in its tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "process_manager/interception/i_event_dispatcher.h"
#include "process_manager/interception/system_events_factory.h"
#include "process_manager/non_blocking/netlink_interceptor.h"
#include "process_manager/process_cache.h"
#include "process_manager/services/feature_techs.h"
#include "support/fake_procfs_parser.h"
#include "support/fake_services.h"
#include "support/own_process.h"
#include "support/watched_tracer.h"

namespace test_support {

// A process cache that writes down what it is told, and answers as the test wants.
class RecordingEventInfoProvider : public zym::object::Ifaces<qor::process_manager::IEventInfoProvider> {
 public:
  using EventInfo = qor::process_manager::process_cache::EventInfo;
  using ProcessInformation = qor::process_manager::process_cache::ProcessInformation;

  struct Report {
    std::string what;
    ProcessInformation info;
    bool exitWasSkipped = false, createWasSkipped = false;
    std::uint64_t exitTimestamp = 0, createTimestamp = 0;
  };

  std::function<void(const Report&)> onReport;  // called on the reporting thread; may throw
  bool skipExit = false;                        // answers: there is nothing to report
  bool skipCreate = false;

  void OnFork(ProcessInformation&& info, EventInfo& create) override {
    create.isFork = true;
    create.info = info;
    Note({.what = "fork",
          .info = std::move(info),
          .createWasSkipped = std::exchange(create.skip, skipCreate),
          .createTimestamp = create.timestamp});
  }
  void OnExec(ProcessInformation&& info, EventInfo& exit, EventInfo& create) override {
    exit.info.pid = info.pid;
    create.info = info;
    Note({.what = "exec",
          .info = std::move(info),
          .exitWasSkipped = std::exchange(exit.skip, skipExit),
          .createWasSkipped = std::exchange(create.skip, skipCreate),
          .exitTimestamp = exit.timestamp,
          .createTimestamp = create.timestamp});
  }
  void OnExit(pid_t pid, EventInfo& exit) override {
    exit.info.pid = static_cast<qor::PidType>(pid);
    Note({.what = "exit",
          .info = exit.info,
          .exitWasSkipped = std::exchange(exit.skip, skipExit),
          .exitTimestamp = exit.timestamp});
  }
  void OnUidChange(pid_t pid, uid_t realUserId, uid_t effectiveUserId) override {
    Note({.what = "uid " + std::to_string(pid) + " " + std::to_string(realUserId) + " " +
                  std::to_string(effectiveUserId),
          .info = {}});
  }
  void OnGidChange(pid_t pid, gid_t realGroupId, gid_t effectiveGroupId) override {
    Note({.what = "gid " + std::to_string(pid) + " " + std::to_string(realGroupId) + " " +
                  std::to_string(effectiveGroupId),
          .info = {}});
  }

  void OnExecPerm(ProcessInformation&&, EventInfo&, EventInfo&) override {}
  void OnExecDeny(ProcessInformation&&, EventInfo&, EventInfo&, EventInfo&, EventInfo&) override {}
  zym::result_t OnCreateProcess(bool, EventInfo&) override { return zym::ZYM_OK; }
  void OnExitProcess(EventInfo&) override {}

  std::vector<Report> Reports() const {
    const std::scoped_lock lock(m_mutex);
    return m_reports;
  }
  bool HasSeen(const std::string& what, pid_t pid) const {
    for (const Report& report : Reports())
      if (report.what == what && report.info.pid == static_cast<qor::PidType>(pid)) return true;
    return false;
  }

 private:
  void Note(Report report) {
    if (onReport) onReport(report);
    const std::scoped_lock lock(m_mutex);
    m_reports.push_back(std::move(report));
  }

  mutable std::mutex m_mutex;  // guards m_reports
  std::vector<Report> m_reports;
};

// Keeps what is dispatched, and which handlers are set.
class FakeEventDispatcher : public zym::object::Ifaces<qor::process_manager::non_blocking::IEventDispatcher> {
 public:
  using EventPtr = zym::intrusive_ptr<qor::process_manager::ISystemEvent>;
  using EventHandler = qor::process_manager::non_blocking::EventHandler;

  void Dispatch(zym::types::vector_t<EventPtr>& events) override {
    const std::scoped_lock lock(m_mutex);
    m_dispatched.emplace_back(events.begin(), events.end());
    events.clear();
  }
  void SetCreateProcessHandler(EventHandler handler) override { Set("create", create, std::move(handler)); }
  void SetExitProcessHandler(EventHandler handler) override { Set("exit", exit, std::move(handler)); }
  void SetFileCreatedHandler(EventHandler) override { ADD_FAILURE() << "not the netlink source's"; }
  void SetFileChangedHandler(EventHandler) override { ADD_FAILURE() << "not the netlink source's"; }
  void SetConsoleInputHandler(EventHandler) override { ADD_FAILURE() << "not the netlink source's"; }

  // One element for each call of Dispatch.
  std::vector<std::vector<EventPtr>> Dispatched() const {
    const std::scoped_lock lock(m_mutex);
    return m_dispatched;
  }
  void Clear() {
    const std::scoped_lock lock(m_mutex);
    m_dispatched.clear();
  }

  EventHandler create;
  EventHandler exit;
  std::vector<std::string> changes;  // of the handlers

 private:
  void Set(const std::string& name, EventHandler& handler, EventHandler value) {
    changes.push_back((value ? "set " : "clear ") + name);
    handler = std::move(value);
  }

  mutable std::mutex m_mutex;  // guards m_dispatched
  std::vector<std::vector<EventPtr>> m_dispatched;
};

class FakeFeatureTechsAggregator : public zym::object::Ifaces<qor::IFeatureTechsAggregator> {
 public:
  zym::result_t RegisterTech(std::uint32_t feature, std::uint32_t tech) override {
    calls.push_back("register " + std::to_string(feature) + " " + std::to_string(tech));
    if (onRegister) onRegister();
    return registerResult;
  }
  zym::result_t UnregisterTech(std::uint32_t feature, std::uint32_t tech) override {
    calls.push_back("unregister " + std::to_string(feature) + " " + std::to_string(tech));
    return zym::ZYM_OK;
  }
  zym::result_t RegisterFeature(std::uint32_t) override { return zym::ZYM_OK; }
  zym::result_t UnregisterFeature(std::uint32_t) override { return zym::ZYM_OK; }
  zym::result_t Report(qor::FeatureTechsReport&) override { return zym::ZYM_OK; }

  std::vector<std::string> calls;
  std::function<void()> onRegister;
  zym::result_t registerResult = zym::ZYM_OK;
};

class PlainExecListener : public zym::object::Ifaces<qor::IExecListener> {
 public:
  zym::result_t GetStatistics(std::uint64_t*) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t WaitExecResult(unsigned int, qor::PidType, int, int&) override {
    return zym::ZYM_E_NOT_IMPLEMENTED;
  }
};

// Keeps what it is told, and has captured executions to tell of: an event of its time holds it.
class ControllableExecListener
    : public zym::object::Ifaces<qor::IExecListener, qor::IExecListenerControl, qor::IExecInformationSource> {
 public:
  zym::result_t GetStatistics(std::uint64_t*) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t WaitExecResult(unsigned int, qor::PidType, int, int&) override {
    return zym::ZYM_E_NOT_IMPLEMENTED;
  }
  zym::result_t GetEnvironCapturing(std::uint32_t*) override {
    ADD_FAILURE() << "not the module's to call";
    return zym::ZYM_E_NOT_IMPLEMENTED;
  }
  zym::result_t SetEnvironCapturing(std::uint32_t value) override {
    values.push_back(value);
    return result;
  }

  std::vector<std::uint32_t> values;
  zym::result_t result = zym::ZYM_OK;
};

class FakeExecListenerFactory : public zym::object::Ifaces<qor::IExecListenerFactory> {
 public:
  zym::result_t GetExecListener(qor::IExecListener** out) override {
    ++calls;
    if (!listener) return zym::ZYM_E_NOT_SUPPORTED;
    listener->AddRef();
    *out = listener.get();
    return zym::ZYM_OK;
  }

  zym::intrusive_ptr<qor::IExecListener> listener;
  int calls = 0;
};

// The source in the middle of fakes.
class NetlinkHarness {
 protected:
  NetlinkHarness() {
    m_host.locator->Add(m_parser);
    m_host.locator->Add(m_cache);
    m_host.locator->Add(m_aggregator);
    m_interceptor = Make();
  }

  zym::intrusive_ptr<qor::process_manager::non_blocking::NetlinkInterceptor> Make() {
    using namespace qor::process_manager;
    return zym::CreateObject<non_blocking::NetlinkInterceptor>(
        m_host.locator.get(), m_dispatcher, zym::CreateObject<SystemEventsFactory>(m_host.locator.get()));
  }

  void OfferListener(zym::intrusive_ptr<qor::IExecListener> listener) {
    m_listenerFactory->listener = std::move(listener);
    m_host.locator->Add(m_listenerFactory);
  }

  FakeHost m_host;
  zym::intrusive_ptr<FakeProcfsParser> m_parser = zym::CreateObject<FakeProcfsParser>();
  zym::intrusive_ptr<RecordingEventInfoProvider> m_cache = zym::CreateObject<RecordingEventInfoProvider>();
  zym::intrusive_ptr<FakeFeatureTechsAggregator> m_aggregator =
      zym::CreateObject<FakeFeatureTechsAggregator>();
  zym::intrusive_ptr<FakeEventDispatcher> m_dispatcher = zym::CreateObject<FakeEventDispatcher>();
  zym::intrusive_ptr<FakeExecListenerFactory> m_listenerFactory =
      zym::CreateObject<FakeExecListenerFactory>();
  zym::intrusive_ptr<qor::process_manager::non_blocking::NetlinkInterceptor> m_interceptor;
};

}  // namespace test_support
