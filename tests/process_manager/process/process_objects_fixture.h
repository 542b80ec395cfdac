// What process objects are made from: a real cache with a clock that stands still, and a reader of /proc that
// answers from memory.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "process_manager/process_manager.h"
#include "support/fake_exclusions.h"
#include "support/fake_procfs_parser.h"
#include "tests/process_manager/process_cache/process_cache_fixture.h"

namespace qor::process_manager {

using system_interceptors::process_manager::IPosixProcessInformation;
using system_interceptors::process_manager::IPosixProcessInformation2;
using system_interceptors::process_manager::IProcessAttributes;
using system_interceptors::process_manager::IProcessControl;
using system_interceptors::process_manager::IProcessInformation;
using system_interceptors::process_manager::IProcessInformationEnumerator;
using system_interceptors::process_manager::IProcessManager;
using system_interceptors::process_manager::ProcessIoCounters;
using system_interceptors::process_manager::ProcessTimes;
using PublicRecord = system_interceptors::process_manager::ProcessInformation;

class ProcessObjectsTest : public ProcessCacheTest {
 protected:
  static constexpr PidType kPid = 77;
  static constexpr PidType kGone = 78;

  void SetUp() override {
    ProcessCacheTest::SetUp();
    OfferCache();
    m_host->locator->Add(m_parser, procfs::IParser::kIid);
    m_host->locator->Add(m_settings, IAppSettingsProvider::kIid);
    m_host->locator->Add(m_matchers, IPathMatcherFactory::kIid);
    m_parser->processes[0] = {};
    m_parser->processes[kPid] = {.parentPid = 5,
                                 .creds = {.uid = {11, 12, 13, 14}, .gid = {21, 22, 23, 24}, .groups = {}},
                                 .environment = {"A=1", "B=2"}};
  }
  void TearDown() override {
    m_host->locator->Clear();
    m_parser.Reset();
    m_settings.Reset();
    m_matchers.Reset();
    ProcessCacheTest::TearDown();
  }

  zym::IServiceLocator* Locator() const { return m_host->locator.get(); }
  zym::ITracer* Tracer() const { return m_host->tracer.get(); }
  void OfferCache() { m_host->locator->Add(m_cache, IProcessInfoProvider::kIid); }

  static PublicRecord RecordOf(IProcessInformation& information) {
    PublicRecord record;
    EXPECT_EQ(information.GetInformation(record), zym::ZYM_OK);
    return record;
  }

  zym::intrusive_ptr<test_support::FakeProcfsParser> m_parser =
      zym::CreateObject<test_support::FakeProcfsParser>();
  zym::intrusive_ptr<test_support::FakeAppSettingsProvider> m_settings =
      zym::CreateObject<test_support::FakeAppSettingsProvider>();
  zym::intrusive_ptr<test_support::FakePathMatcherFactory> m_matchers =
      zym::CreateObject<test_support::FakePathMatcherFactory>();
};

}  // namespace qor::process_manager
