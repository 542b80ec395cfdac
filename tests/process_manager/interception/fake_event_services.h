// The host's services that complete events: who is told of them, and who knows what was executed.
#pragma once

#include <functional>
#include <vector>

#include "process_manager/process_cache.h"
#include "process_manager/services/exec_listener.h"
#include "zym/object.h"

namespace test_support {

// Notes what events tell the process cache.
class FakeEventInfoProvider : public zym::object::Ifaces<qor::process_manager::IEventInfoProvider> {
 public:
  using EventInfo = qor::process_manager::process_cache::EventInfo;
  using ProcessInformation = qor::process_manager::process_cache::ProcessInformation;

  struct Creation {
    bool shouldUpdateExecInfo;
    EventInfo info;
  };

  void OnFork(ProcessInformation&&, EventInfo&) override {}
  void OnExec(ProcessInformation&&, EventInfo&, EventInfo&) override {}
  void OnExit(pid_t, EventInfo&) override {}
  void OnExecPerm(ProcessInformation&&, EventInfo&, EventInfo&) override {}
  void OnExecDeny(ProcessInformation&&, EventInfo&, EventInfo&, EventInfo&, EventInfo&) override {}
  zym::result_t OnCreateProcess(bool shouldUpdateExecInfo, EventInfo& create) override {
    if (then) then(create);
    creations.push_back({shouldUpdateExecInfo, create});
    return create.skip ? zym::ZYM_E_NOT_FOUND : zym::ZYM_OK;
  }
  void OnExitProcess(EventInfo& exit) override {
    if (then) then(exit);
    exits.push_back(exit);
  }
  void OnUidChange(pid_t, uid_t, uid_t) override {}
  void OnGidChange(pid_t, gid_t, gid_t) override {}

  std::function<void(EventInfo&)> then;
  std::vector<Creation> creations;
  std::vector<EventInfo> exits;
};

// A listener that has strings to give.
class FakeExecListener
    : public zym::object::Ifaces<qor::IExecListener, qor::IExecInformationSource, qor::IExecStringsProvider> {
 public:
  struct Question {
    std::uint32_t timeout;
    qor::PidType pid;
    std::uint32_t fd;
  };

  zym::result_t GetStatistics(std::uint64_t*) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t WaitExecResult(unsigned int, qor::PidType, int, int&) override {
    return zym::ZYM_E_NOT_IMPLEMENTED;
  }
  zym::result_t GetExecStrings(std::uint32_t timeout, qor::PidType pid, std::uint32_t fd,
                               zym::types::vector_t<zym::types::string_t>& out) override {
    questions.push_back({timeout, pid, fd});
    if (then) then();
    if (ZYM_SUCCEEDED(result)) out = strings;
    return result;
  }

  zym::result_t result = zym::ZYM_OK;
  zym::types::vector_t<zym::types::string_t> strings;
  std::function<void()> then;
  std::vector<Question> questions;
};

// A listener that only listens.
class PlainExecListener : public zym::object::Ifaces<qor::IExecListener> {
 public:
  zym::result_t GetStatistics(std::uint64_t*) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t WaitExecResult(unsigned int, qor::PidType, int, int&) override {
    return zym::ZYM_E_NOT_IMPLEMENTED;
  }
};

}  // namespace test_support
