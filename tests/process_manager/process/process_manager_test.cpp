// The door to processes: which object each operation gives, and what it says when there is none.
#include "process_manager/process/process_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/process_manager/process/process_objects_fixture.h"
#include "zym/exception.h"

namespace qor::process_manager {
namespace {

using ::testing::HasSubstr;

constexpr UniquePidType kUniquePid = 0x12345678'00000000 | 78;  // of the pid 78, which nobody has

class ProcessManagerTest : public ProcessObjectsTest {
 protected:
  void SetUp() override {
    ProcessObjectsTest::SetUp();
    m_manager = zym::CreateObject<ProcessManager>(Locator());
  }
  void TearDown() override {
    m_manager.Reset();
    ProcessObjectsTest::TearDown();
  }

  zym::intrusive_ptr<ProcessManager> m_manager;
};

TEST_F(ProcessManagerTest, TracesTheSignatureOfItsConstructor) {
  EXPECT_TRUE(Traced(800, "qor::process_manager::ProcessManager::ProcessManager(zym::IServiceLocator*)"));
}

TEST_F(ProcessManagerTest, NeedsAnAllocatorAndATracer) {
  for (const zym::iid_t iid : {zym::IAllocator::kIid, zym::ITracer::kIid}) {
    const test_support::FakeHost other;
    other.locator->Remove(iid);
    EXPECT_THROW(zym::CreateObject<ProcessManager>(other.locator.get()), zym::GetInterfaceException);
  }
}

TEST_F(ProcessManagerTest, GivesWhatIsKnownOfAPid) {
  zym::intrusive_ptr<IProcessInformation> information;
  ASSERT_EQ(m_manager->GetInformation(kPid, information.Ref()), zym::ZYM_OK);
  EXPECT_EQ(RecordOf(*information).pid, kPid);
  EXPECT_EQ(information->AddRef(), 2U) << "the one reference is the caller's";
  information->Release();
  EXPECT_FALSE(Ask(kPid).effectiveUserId) << "it is not a full look";
  EXPECT_TRUE(Traced(800,
                     "zym::result_t qor::process_manager::ProcessManager::GetInformation(qor::PidType, "
                     "system_interceptors::process_manager::IProcessInformation**) pid: 77"));
}

TEST_F(ProcessManagerTest, GivesWhatIsKnownOfAUniquePid) {
  const UniquePidType uniquePid = Fork().info.uniquePid;
  zym::intrusive_ptr<IProcessInformation> information;
  ASSERT_EQ(m_manager->GetInformationByUniqueId(uniquePid, information.Ref()), zym::ZYM_OK);
  EXPECT_EQ(RecordOf(*information).uniquePid, uniquePid);
  const std::string text = m_host->tracer->Find(" uniqueId: " + std::to_string(uniquePid) + " (200)");
  EXPECT_THAT(text, HasSubstr("ProcessManager::GetInformationByUniqueId(const qor::UniquePidType&, "));
  EXPECT_TRUE(Traced(800, text));
}

TEST_F(ProcessManagerTest, GivesTheControlOfAPid) {
  zym::intrusive_ptr<IProcessControl> control;
  ASSERT_EQ(m_manager->GetControl(kPid, control.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessInformation> information;
  ASSERT_EQ(control->GetInformation(information.Ref()), zym::ZYM_OK);
  EXPECT_EQ(RecordOf(*information).pid, kPid);
  const std::string text = m_host->tracer->Find("ProcessManager::GetControl(");
  EXPECT_TRUE(text.ends_with(" pid: 77")) << text;
  EXPECT_TRUE(m_host->tracer->Has(800, text));
}

TEST_F(ProcessManagerTest, GivesTheControlOfAUniquePid) {
  const UniquePidType uniquePid = Fork().info.uniquePid;
  zym::intrusive_ptr<IProcessControl> control;
  ASSERT_EQ(m_manager->GetControlByUniqueId(uniquePid, control.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessInformation> information;
  ASSERT_EQ(control->GetInformation(information.Ref()), zym::ZYM_OK);
  EXPECT_EQ(RecordOf(*information).uniquePid, uniquePid);
  const std::string text = m_host->tracer->Find("ProcessManager::GetControlByUniqueId(");
  EXPECT_TRUE(text.ends_with(" uniqueId: " + std::to_string(uniquePid) + " (200)")) << text;
  EXPECT_TRUE(m_host->tracer->Has(800, text));
}

TEST_F(ProcessManagerTest, EnumeratesAllProcesses) {
  m_parser->listed = {kPid};
  zym::intrusive_ptr<IProcessInformationEnumerator> processes;
  ASSERT_EQ(m_manager->Enumerate(processes.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IProcessInformation> information;
  ASSERT_EQ(processes->Next(information.Ref()), zym::ZYM_OK);
  EXPECT_EQ(RecordOf(*information).pid, kPid);
  ASSERT_EQ(processes->Next(information.Ref()), zym::ZYM_OK);
  EXPECT_EQ(RecordOf(*information).pid, 0U);
  EXPECT_EQ(processes->Next(information.Ref()), zym::ZYM_FALSE);
}

TEST_F(ProcessManagerTest, AnEnumeratorIsOfUseWhenItsManagerHasBeenReleased) {
  m_parser->listed = {kPid};
  zym::intrusive_ptr<IProcessInformationEnumerator> processes;
  ASSERT_EQ(m_manager->Enumerate(processes.Ref()), zym::ZYM_OK);
  m_manager.Reset();
  m_host->locator->Clear();
  zym::intrusive_ptr<IProcessInformation> information;
  ASSERT_EQ(processes->Next(information.Ref()), zym::ZYM_OK);
  EXPECT_EQ(RecordOf(*information).pid, kPid);
}

// --- failures ---

struct Getter {
  const char* name;
  std::function<zym::result_t(ProcessManager&, void**)> get;
  const char* trace;
};

class ProcessManagerGetters : public ProcessManagerTest, public testing::WithParamInterface<Getter> {};

TEST_P(ProcessManagerGetters, AProcessThatHasVanishedIsNotFoundThroughTheExceptionPath) {
  int sentinel = 0;
  void* out = &sentinel;
  EXPECT_EQ(static_cast<std::uint32_t>(GetParam().get(*m_manager, &out)), 0x8000004cU);
  EXPECT_EQ(out, &sentinel);
  EXPECT_TRUE(Traced(300, GetParam().trace));
  EXPECT_EQ(m_host->tracer->Find(GetParam().trace), GetParam().trace);
  EXPECT_TRUE(Traced(300, ": 0x8000004c (Not found)")) << "what was thrown";
}

TEST_P(ProcessManagerGetters, AServiceThatIsMissingGivesItsCode) {
  m_host->locator->FailWith(IProcessInfoProvider::kIid, zym::ZYM_E_LOCKED);
  void* out = nullptr;
  EXPECT_EQ(GetParam().get(*m_manager, &out), zym::ZYM_E_LOCKED);
  EXPECT_TRUE(Traced(300, GetParam().trace));
  EXPECT_TRUE(Traced(300, "Cannot get IProcessInfoProvider interface"));
}

INSTANTIATE_TEST_SUITE_P(
    Of, ProcessManagerGetters,
    testing::Values(Getter{"GetInformation",
                           [](ProcessManager& manager, void** out) {
                             return manager.GetInformation(78, reinterpret_cast<IProcessInformation**>(out));
                           },
                           "Failed to gain IProcessInformation for pid=78"},
                    Getter{"GetInformationByUniqueId",
                           [](ProcessManager& manager, void** out) {
                             return manager.GetInformationByUniqueId(
                                 kUniquePid, reinterpret_cast<IProcessInformation**>(out));
                           },
                           "Failed to gain IProcessInformation for uniqueId=1311768464867721294 (78)"},
                    Getter{"GetControl",
                           [](ProcessManager& manager, void** out) {
                             return manager.GetControl(78, reinterpret_cast<IProcessControl**>(out));
                           },
                           "Failed to gain IProcessControl for pid=78"},
                    Getter{"GetControlByUniqueId",
                           [](ProcessManager& manager, void** out) {
                             return manager.GetControlByUniqueId(kUniquePid,
                                                                 reinterpret_cast<IProcessControl**>(out));
                           },
                           "Failed to gain IProcessControl for uniqueId=1311768464867721294 (78)"}),
    [](const auto& getter) { return getter.param.name; });

TEST_F(ProcessManagerTest, AFailedEnumerationIsTraced) {
  m_parser->listResult = zym::ZYM_E_UNSPECIFIED;
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IProcessInformationEnumerator*>(&sentinel);
  IProcessInformationEnumerator* processes = untouched;
  EXPECT_EQ(m_manager->Enumerate(&processes), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(processes, untouched);
  EXPECT_TRUE(Traced(300, "Failed to gain IProcessInformationEnumeration"));
  EXPECT_TRUE(Traced(300, "Failed to iterate /proc folder"));
}

// A cache that has no memory left.
class ExhaustedCache : public zym::object::Ifaces<IProcessInfoProvider> {
 public:
  bool Get(pid_t, Info&) override { throw std::bad_alloc(); }
  bool GetByUniquePid(UniquePidType, Info&) override { throw std::bad_alloc(); }
  void Update(Info&) override { throw std::bad_alloc(); }
  bool UpdateAdditionalInfo(Info&) override { throw std::bad_alloc(); }
};

TEST_F(ProcessManagerTest, AnAllocationThatFailsEndsAsAConstructionThatFails) {
  m_host->locator->Add(zym::CreateObject<ExhaustedCache>());
  zym::intrusive_ptr<IProcessInformation> information;
  EXPECT_EQ(m_manager->GetInformation(kPid, information.Ref()), zym::ZYM_E_OUT_OF_MEMORY);
  EXPECT_TRUE(Traced(300, "Failed to gain IProcessInformation for pid=77"));
  zym::intrusive_ptr<IProcessControl> control;
  EXPECT_EQ(m_manager->GetControl(kPid, control.Ref()), zym::ZYM_E_OUT_OF_MEMORY);
}

TEST_F(ProcessManagerTest, AllOnesIsNoProcess) {
  zym::intrusive_ptr<IProcessInformation> information;
  zym::intrusive_ptr<IProcessControl> control;
  EXPECT_EQ(m_manager->GetInformation(kNoPid, information.Ref()), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(m_manager->GetControl(kNoPid, control.Ref()), zym::ZYM_E_INVALID_ARGUMENT);
  // A unique pid of all ones is that of the pid 8388607, which no process has.
  EXPECT_EQ(m_manager->GetInformationByUniqueId(kNoUniquePid, information.Ref()), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_manager->GetControlByUniqueId(kNoUniquePid, control.Ref()), zym::ZYM_E_NOT_FOUND);
}

}  // namespace
}  // namespace qor::process_manager
