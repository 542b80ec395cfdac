#include "qor_common/memory_scanning_task.h"

#include <gtest/gtest.h>

#include "qor_common/enum_names.h"
#include "qor_common/task_manager_fake.h"
#include "support/fake_services.h"
#include "zym/module_counter.h"

namespace qor::process_memory_manager {
namespace {

class MemoryScanningTaskTest : public testing::Test {
 protected:
  MemoryScanningTaskTest() { m_locator->Add<IQorTaskManager>(m_tasks); }
  ~MemoryScanningTaskTest() override {
    m_locator->Clear();
    m_locator.Reset();
    m_tasks.Reset();
    m_tracer.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects);
  }

  zym::result_t Get() { return GetMemoryScanningTask(m_locator.get(), m_tracer.get(), m_task); }
  void ExpectCheckText(const std::string& failure, const std::string& end) const {
    EXPECT_TRUE(failure.starts_with("qor_common/memory_scanning_task.cpp:")) << failure;
    EXPECT_TRUE(failure.ends_with(end)) << failure;
  }

  const decltype(zym::ModuleObjectCounter::Value()) m_objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<test_support::RecordingTracer> m_tracer =
      zym::CreateObject<test_support::RecordingTracer>();
  zym::intrusive_ptr<test_support::FakeLocator> m_locator = zym::CreateObject<test_support::FakeLocator>();
  zym::intrusive_ptr<FakeTaskManager> m_tasks = zym::CreateObject<FakeTaskManager>();
  core::TaskInfo m_task;
  core::MemoryScanSettings m_scans{.scanMemory = true};
  core::MemoryScanSettings m_rests{.scanMemory = false};
};

TEST_F(MemoryScanningTaskTest, TheFirstThatQualifiesIsCopied) {
  m_tasks->Add(TaskState::Stopped, "stopped", &m_scans);
  m_tasks->Add(TaskState::Completed, "completed", &m_scans);
  m_tasks->Add(TaskState::Running, "of another kind", &m_scans, 0x12345678);
  m_tasks->Add(TaskState::Running, "without memory", &m_rests);
  m_tasks->Add(TaskState::Paused, "first", &m_scans);
  m_tasks->Add(TaskState::Running, "second", &m_scans);
  EXPECT_EQ(Get(), zym::ZYM_OK);
  EXPECT_EQ(m_task.name, "first");
  EXPECT_EQ(m_task.id, "id of first");
  EXPECT_EQ(m_task.state, TaskState::Paused);
  EXPECT_EQ(m_task.settings.value, &m_scans);
}

TEST_F(MemoryScanningTaskTest, AnyStateButSixAndSevenQualifies) {
  for (std::uint32_t state = 0; state <= 8; ++state) {
    m_tasks->tasks.clear();
    m_tasks->Add(state, "task", &m_scans);
    EXPECT_EQ(Get(), state == 6 || state == 7 ? zym::ZYM_E_NOT_FOUND : zym::ZYM_OK) << state;
  }
}

TEST_F(MemoryScanningTaskTest, TheTasksAreThoseOfTheProductsUser) {
  static_cast<void>(Get());
  EXPECT_EQ(m_tasks->askedFor, std::vector<std::string>{"root"});
}

TEST_F(MemoryScanningTaskTest, WithoutOneItIsNotFoundAndTheRecordIsLeftAlone) {
  m_task.name = "untouched";
  m_tasks->Add(TaskState::Running, "without memory", &m_rests);
  EXPECT_EQ(Get(), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_task.name, "untouched");
  EXPECT_TRUE(m_tracer->Has("Cannot find any running memory scanning task"));
  m_tasks->tasks.clear();
  EXPECT_EQ(Get(), zym::ZYM_E_NOT_FOUND);
}

TEST_F(MemoryScanningTaskTest, ARunningTaskWhoseSettingsCannotBeReadIsTracedAndPassedOver) {
  m_tasks->Add(TaskState::Running, "broken", nullptr);
  m_tasks->Add(TaskState::Running, "whole", &m_scans);
  EXPECT_EQ(Get(), zym::ZYM_OK);
  EXPECT_EQ(m_task.name, "whole");
  EXPECT_TRUE(m_tracer->Has(300, "Cannot get settings for 'broken' task"));
}

TEST_F(MemoryScanningTaskTest, WithoutATaskManagerTheFailureIsTracedAndReturned) {
  m_locator->FailWith(IQorTaskManager::kIid, zym::ZYM_E_ACCESS_DENIED);
  EXPECT_EQ(Get(), zym::ZYM_E_ACCESS_DENIED);
  ExpectCheckText(m_tracer->Find("IQorTaskManager"),
                  "(zym::GetInterface(sl, tm.Ref())),(ZYM_SUCCEEDED(_result)) failed: result = 0x80000045 "
                  "(Access denied) Cannot get IQorTaskManager interface");
}

TEST_F(MemoryScanningTaskTest, AFailureToListTheTasksIsTracedAndReturned) {
  m_tasks->Add(TaskState::Running, "task", &m_scans);
  m_tasks->result = zym::ZYM_E_INVALID_STATE;
  EXPECT_EQ(Get(), zym::ZYM_E_INVALID_STATE);
  ExpectCheckText(m_tracer->Find("tasks list"),
                  "(tm->GetTaskList(taskList, UserCred::GetProductUserCred())),(ZYM_SUCCEEDED(_result)) "
                  "failed: result = 0x8000006a (Invalid state) Cannot get tasks list");
}

TEST_F(MemoryScanningTaskTest, AnExceptionOnTheWayBecomesAResult) {
  m_tasks->raise = true;
  EXPECT_EQ(Get(), zym::ZYM_E_OUT_OF_MEMORY);
  EXPECT_TRUE(m_tracer->Has(300, "GetMemoryScanningTask: "));
}

TEST_F(MemoryScanningTaskTest, SettingsOfAnotherKindAreNotRead) {
  core::TaskInfo task;
  task.settings = {.typeId = core::kMemoryScanSettingsId, .value = &m_scans};
  EXPECT_EQ(GetMemoryScanSettings(task), &m_scans);
  task.settings.typeId += 1;
  EXPECT_EQ(GetMemoryScanSettings(task), nullptr);
}

}  // namespace
}  // namespace qor::process_memory_manager
