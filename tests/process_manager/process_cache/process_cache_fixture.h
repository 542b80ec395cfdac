// A process cache in a fake host, with a clock that stands still and a counter that starts at a known value.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <utility>

#include "process_manager/process_cache/process_cache.h"
#include "support/fake_services.h"
#include "zym/module_counter.h"

namespace qor::process_manager {

using EventInfo = process_cache::EventInfo;
using Info = process_cache::ProcessInformation;

inline std::shared_ptr<const zym::types::string16_t> CommandLine(const char16_t* text) {
  return std::make_shared<const zym::types::string16_t>(text);
}

// What a read of a live process gives, every field of it.
inline Info ReadOf(pid_t pid, pid_t parentPid, const char16_t* path) {
  Info info;
  info.pid = static_cast<PidType>(pid);
  info.parentPid = static_cast<PidType>(parentPid);
  info.sessionId = 7;
  info.startTime = 5000;
  info.imagePath = path;
  info.workingDirectory = u"/home";
  info.commandLine = CommandLine(path);
  info.state = kCreated;
  info.realUserId = 1000;
  info.effectiveUserId = 1001;
  info.realGroupId = 1002;
  info.effectiveGroupId = 1003;
  info.environment = {"A=1"};
  info.mountNamespaceId = 42;
  return info;
}

// What an event source gives for a process that was gone before it could be read.
inline Info GoneOf(pid_t pid, pid_t parentPid = 0) {
  Info info;
  info.pid = static_cast<PidType>(pid);
  info.parentPid = static_cast<PidType>(parentPid);
  info.startTime = 6000;
  info.flags = kNoBackingImage;
  info.state = kTerminated;
  return info;
}

class ProcessCacheTest : public testing::Test {
 protected:
  static constexpr std::int64_t kRetention = 10'000'000;  // a second
  static constexpr pid_t kParent = 100;
  static constexpr pid_t kChild = 200;
  static constexpr std::uint16_t kCounterStart = 10;
  static constexpr std::time_t kSeconds = 0x12345678;

  struct Exec {
    EventInfo exit;
    EventInfo create;
  };
  struct Denial {
    EventInfo exit;
    EventInfo create;
    EventInfo forkExit;
    EventInfo forkCreate;
  };

  void SetUp() override { m_cache = MakeCache(); }

  void TearDown() override {
    m_cache.Reset();
    EXPECT_EQ(m_host->metricsRegistry->Collectors(), 0U);
    m_host.reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objectsBefore);
  }

  ProcessCacheSurroundings Surroundings() {
    return {.now = [this] { return m_now; },
            .seconds = [] { return kSeconds; },
            .counterStart = [] { return kCounterStart; },
            .isWorkstation = [](zym::ITracer*) { return false; }};
  }
  zym::intrusive_ptr<ProcessCache> MakeCache(ProcessCacheSurroundings surroundings) {
    return zym::CreateObject<ProcessCache>(m_host->locator.get(), kRetention, std::move(surroundings));
  }
  zym::intrusive_ptr<ProcessCache> MakeCache() { return MakeCache(Surroundings()); }

  EventInfo ReportFork(Info info) {
    EventInfo create;
    m_cache->OnFork(std::move(info), create);
    return create;
  }
  EventInfo Fork(pid_t pid = kChild, pid_t parentPid = kParent) {
    return ReportFork(ReadOf(pid, parentPid, u"/bin/forked"));
  }
  Exec ReportExec(Info info) {
    Exec exec;
    m_cache->OnExec(std::move(info), exec.exit, exec.create);
    return exec;
  }
  Exec ReportExecPerm(Info info) {
    Exec exec;
    m_cache->OnExecPerm(std::move(info), exec.exit, exec.create);
    return exec;
  }
  Denial ReportExecDeny(Info info) {
    Denial denial;
    m_cache->OnExecDeny(std::move(info), denial.exit, denial.create, denial.forkExit, denial.forkCreate);
    return denial;
  }
  EventInfo Exit(pid_t pid = kChild) {
    EventInfo exit;
    m_cache->OnExit(pid, exit);
    return exit;
  }
  // The exit in the cache, and its event handled.
  EventInfo Finish(pid_t pid = kChild) {
    EventInfo exit = Exit(pid);
    m_cache->OnExitProcess(exit);
    return exit;
  }
  Info Learn(Info info) {
    m_cache->Update(info);
    return info;
  }
  bool Knows(pid_t pid) {
    Info info;
    return m_cache->Get(pid, info);
  }
  // The answer of Get, which must be yes.
  Info Ask(pid_t pid) {
    Info info;
    EXPECT_TRUE(m_cache->Get(pid, info)) << pid;
    return info;
  }
  std::int64_t LiveSize() {
    m_host->metricsRegistry->Collect();
    return m_host->metricSource->size->Value();
  }
  std::uint64_t Hits() const { return m_host->metricSource->hits->Value(); }
  std::uint64_t Misses() const { return m_host->metricSource->misses->Value(); }
  bool Traced(std::uint32_t level, std::string_view text) const { return m_host->tracer->Has(level, text); }

  const std::int32_t m_objectsBefore = zym::ModuleObjectCounter::Value();
  std::unique_ptr<test_support::FakeHost> m_host = std::make_unique<test_support::FakeHost>();
  zym::datetime_t m_now = zym::datetime::FromUnixSeconds(1'700'000'000);
  zym::intrusive_ptr<ProcessCache> m_cache;
};

}  // namespace qor::process_manager
