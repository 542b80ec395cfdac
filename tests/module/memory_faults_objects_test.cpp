// Processes as objects when memory gives out at each allocation of an operation.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "module/memory_faults.h"
#include "process_manager/process_manager.h"
#include "support/actor.h"
#include "support/fake_exclusions.h"
#include "support/forwarding_parser.h"

namespace {

using namespace test_support;
using namespace system_interceptors;
using Failing = HeapFaults::Failing;
using Threads = HeapFaults::Threads;
namespace class_ids = qor::class_ids;

// The list of processes that a test wants, and the module's reader for each of them.
class ShieldedParser : public ForwardingParser {
 public:
  ShieldedParser(zym::intrusive_ptr<qor::procfs::IParser> inner, std::vector<unsigned int> listed)
      : ForwardingParser(std::move(inner)), m_listed(std::move(listed)) {}

  zym::result_t GetProcessList(std::vector<unsigned int>& pids) override {
    const HostsOwnMemory own;
    pids = m_listed;
    return zym::ZYM_OK;
  }

 private:
  const std::vector<unsigned int> m_listed;
};

class ShieldedAppSettings : public FakeAppSettingsProvider {
 public:
  zym::result_t GetSettings(qor::AppSettings& out) override {
    const HostsOwnMemory own;
    return FakeAppSettingsProvider::GetSettings(out);
  }
};

class ShieldedMatchers : public FakePathMatcherFactory {
 public:
  zym::result_t CreatePathMatcher(const qor::PathList& patterns, qor::IPathMatcher** matcher) override {
    const HostsOwnMemory own;
    return FakePathMatcherFactory::CreatePathMatcher(patterns, matcher);
  }
};

// The door to processes, for two real ones. Neither is a child of the host's process, so that the settings
// are asked.
class ProcessObjectFaults : public testing::Test {
 protected:
  ProcessObjectFaults() : m_pid(static_cast<qor::PidType>(m_actor.HearPid())) {
    FakeLocator& locator = *m_faultHost.host.locator;
    locator.Add(zym::CreateObject<ShieldedParser>(m_faultHost.parser,
                                                  std::vector<unsigned int>{m_pid, 0xfffffffe, m_other}),
                qor::procfs::IParser::kIid);
    locator.Add(zym::CreateObject<ShieldedAppSettings>(), qor::IAppSettingsProvider::kIid);
    locator.Add(zym::CreateObject<ShieldedMatchers>(), qor::IPathMatcherFactory::kIid);
    EXPECT_EQ(m_faultHost.module.Make(class_ids::kProcessManager, m_faultHost.Locator(), m_manager),
              zym::ZYM_OK);
  }

  // The cache of the module; one that knows nothing, in place of it.
  void ForgetAllProcesses() {
    ASSERT_EQ(m_faultHost.module.Create(class_ids::kProcessCache, m_faultHost.Locator(), m_faultHost.cache),
              zym::ZYM_OK);
    m_faultHost.host.locator->Add(m_faultHost.cache);
  }
  void LearnTheProcess() {
    ForgetAllProcesses();
    zym::intrusive_ptr<process_manager::IProcessInformation> information;
    ASSERT_EQ(m_manager->GetInformation(m_pid, information.Ref()), zym::ZYM_OK);
    process_manager::ProcessInformation record;
    ASSERT_EQ(information->GetInformation(record), zym::ZYM_OK);
    m_uniquePid = record.uniquePid;
  }

  // An operation that gives an object, with each shortage that there can be.
  template <class I>
  void ExpectAnObjectOrNone(bool isKnown, const char* traced,
                            const std::function<zym::result_t(I** out)>& operation) {
    RecordingTracer& tracer = *m_faultHost.host.tracer;
    int nothing = 0;
    AtEachAllocation([&](Shortage shortage) {
      SCOPED_TRACE(shortage);
      ForgetAllProcesses();
      if (isKnown) LearnTheProcess();
      tracer.Clear();
      const std::int64_t before = HeapFaults::Live();
      auto* object = reinterpret_cast<I*>(&nothing);
      HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
      const zym::result_t result = operation(&object);
      faults.End();
      if (result == zym::ZYM_OK) {
        object->Release();
      } else {
        EXPECT_TRUE(faults.Fired());
        EXPECT_TRUE(IsOneOf(result, {zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_NOT_FOUND})) << std::hex << result;
        if (result == zym::ZYM_E_NOT_FOUND) {
          EXPECT_TRUE(tracer.Has(500, "Failed to obtain image path for pid: "))
              << "without which a process counts as gone, for whatever reason";
        }
        EXPECT_EQ(static_cast<void*>(object), &nothing);
        EXPECT_TRUE(tracer.Has(300, traced));
      }
      const bool wasRead = tracer.Has("Process info is missing in cache");
      tracer.Clear();
      if (!wasRead) {
        EXPECT_EQ(HeapFaults::Live(), before);
      }
      // And with memory it is as ever.
      EXPECT_EQ(operation(&object), zym::ZYM_OK);
      object->Release();
      return faults.Fired();
    });
  }

  FaultHost m_faultHost;
  Actor m_actor{{"abandon", "say", "wait"}};
  const qor::PidType m_pid;
  const qor::PidType m_other = static_cast<qor::PidType>(m_actor.Pid());
  qor::UniquePidType m_uniquePid = 0;
  zym::intrusive_ptr<process_manager::IProcessManager> m_manager;
};

TEST_F(ProcessObjectFaults, InformationIsGivenOrRefusedWhateverAllocationFails) {
  using process_manager::IProcessInformation;
  for (const bool isKnown : {true, false}) {
    SCOPED_TRACE(isKnown);
    ExpectAnObjectOrNone<IProcessInformation>(
        isKnown, "Failed to gain IProcessInformation for pid=", [&](IProcessInformation** out) {
          return m_manager->GetInformation(m_pid, out);
        });
    ExpectAnObjectOrNone<IProcessInformation>(
        isKnown, "Failed to gain IProcessInformation for uniqueId=", [&](IProcessInformation** out) {
          return m_manager->GetInformationByUniqueId(isKnown ? m_uniquePid : m_pid, out);
        });
  }
}

TEST_F(ProcessObjectFaults, AControlIsGivenOrRefusedWhateverAllocationFails) {
  using process_manager::IProcessControl;
  for (const bool isKnown : {true, false}) {
    SCOPED_TRACE(isKnown);
    ExpectAnObjectOrNone<IProcessControl>(
        isKnown, "Failed to gain IProcessControl for pid=", [&](IProcessControl** out) {
          return m_manager->GetControl(m_pid, out);
        });
    ExpectAnObjectOrNone<IProcessControl>(
        isKnown, "Failed to gain IProcessControl for uniqueId=", [&](IProcessControl** out) {
          return m_manager->GetControlByUniqueId(isKnown ? m_uniquePid : m_pid, out);
        });
  }
}

// A process for which there is no memory is left out with a word; the one that nobody has always is.
TEST_F(ProcessObjectFaults, ASnapshotHoldsWhatThereIsMemoryForAndSaysWhatItLeavesOut) {
  RecordingTracer& tracer = *m_faultHost.host.tracer;
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    ForgetAllProcesses();
    tracer.Clear();
    zym::intrusive_ptr<process_manager::IProcessInformationEnumerator> snapshot;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = m_manager->Enumerate(snapshot.Ref());
    faults.End();
    EXPECT_EQ(bool(snapshot), result == zym::ZYM_OK);
    if (snapshot) {
      std::size_t held = 0;
      zym::intrusive_ptr<process_manager::IProcessInformation> information;
      while (snapshot->Next(information.Ref()) == zym::ZYM_OK) ++held;
      const auto records = tracer.Records();
      const auto leftOut = std::ranges::count_if(records, [](const TraceRecord& record) {
        return record.level == 500 && record.text.starts_with("ProcessSnapshot: Failed to read info for ");
      });
      EXPECT_EQ(held + static_cast<std::size_t>(leftOut), 4U);
      if (!faults.Fired()) {
        EXPECT_EQ(held, 3U);
      }
    } else {
      EXPECT_TRUE(faults.Fired());
      EXPECT_EQ(result, zym::ZYM_E_OUT_OF_MEMORY);
      EXPECT_TRUE(tracer.Has(300, "Failed to gain IProcessInformationEnumeration"));
    }
    return faults.Fired();
  });
}

TEST_F(ProcessObjectFaults, WhatIsKnownIsCopiedOutWholeOrNotAtAll) {
  zym::intrusive_ptr<process_manager::IProcessInformationEnumerator> snapshot;
  ASSERT_EQ(m_manager->Enumerate(snapshot.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<process_manager::IProcessInformation> information;
  ASSERT_EQ(snapshot->Next(information.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<process_manager::IPosixProcessInformation> posix;
  ASSERT_EQ(zym::QueryInterface(information, posix.Ref()), zym::ZYM_OK);
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    m_faultHost.host.tracer->Clear();
    process_manager::ProcessInformation record;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = information->GetInformation(record);
    faults.End();
    // The text of its trace needs memory too, and goes without.
    EXPECT_TRUE(IsOneOf(result, {zym::ZYM_OK, zym::ZYM_E_OUT_OF_MEMORY}));
    EXPECT_EQ(record.pid, result == zym::ZYM_OK ? m_pid : 0U);
    EXPECT_EQ(record.imagePath.empty(), result != zym::ZYM_OK);
    return faults.Fired();
  });
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    zym::types::vector_t<zym::types::string_t> variables;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = posix->GetEnvironmentVariables(variables);
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_EQ(variables.empty(), faults.Fired());
    return faults.Fired();
  });
}

TEST_F(ProcessObjectFaults, TheOperationsOfAControlNeedNoMemory) {
  using namespace process_manager;
  zym::intrusive_ptr<IProcessControl> control;
  ASSERT_EQ(m_manager->GetControl(m_pid, control.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessAttributes> attributes;
  ASSERT_EQ(zym::QueryInterface(control, attributes.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessInformation> information;
  ProcessTimes times;
  ProcessIoCounters counters;
  std::uint32_t flags = 0;
  HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
  const zym::result_t results[] = {
      control->GetInformation(information.Ref()),
      control->GetTimes(times),
      control->GetIoCounters(counters),
      attributes->GetAttributeFlags(flags),
      attributes->UpdateAttributeFlags(1, 2),
      control->Terminate(),
      control->TerminateAndWait(0),
  };
  faults.End();
  for (const zym::result_t result : results) EXPECT_EQ(result, zym::ZYM_OK) << std::hex << result;
}

// A hit is asked for at each event: one allocation is the object's, and the others are those of a copy of the
// record.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // a sanitizer's malloc isn't counted
TEST_F(ProcessObjectFaults, ALookupThatHitsTheCacheAllocatesForItsResultAlone) {
  LearnTheProcess();
  m_faultHost.host.tracer->RefuseRecords(zym::ZYM_E_NOT_MATCHED);
  const auto count = [](auto operation) {
    HeapFaults counted(Threads::kThis);
    operation();
    counted.End();
    return counted.Calls();
  };
  qor::process_manager::process_cache::ProcessInformation known;
  ASSERT_TRUE(m_faultHost.cache->Get(static_cast<pid_t>(m_pid), known));
  const std::uint64_t ofARecord = count([&] { const auto copy = known; });
  EXPECT_GE(ofARecord, 1U) << "the path of the image";
  zym::intrusive_ptr<process_manager::IProcessInformation> information;
  EXPECT_EQ(count([&] { m_manager->GetInformation(m_pid, information.Ref()); }), ofARecord + 1);
  EXPECT_EQ(count([&] { m_manager->GetInformationByUniqueId(m_uniquePid, information.Ref()); }),
            ofARecord + 1);
  ASSERT_TRUE(information);
}
#endif

TEST_F(ProcessObjectFaults, ManyFailuresKeepNothing) {
  ExpectNothingIsKept([this] {
    LearnTheProcess();
    for (std::uint64_t call = 0; call < 20; ++call) {
      const HeapFaults faults(Threads::kThis, Failing::kOnce, call);
      zym::intrusive_ptr<process_manager::IProcessControl> control;
      m_manager->GetControl(m_pid, control.Ref());
      zym::intrusive_ptr<process_manager::IProcessInformationEnumerator> snapshot;
      m_manager->Enumerate(snapshot.Ref());
    }
    m_faultHost.host.tracer->Clear();
  });
}

}  // namespace
