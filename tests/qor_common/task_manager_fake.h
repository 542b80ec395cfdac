// The host's task manager, with a list that a test writes.
#pragma once

#include <new>
#include <string>
#include <vector>

#include "process_manager/services/task_manager.h"
#include "zym/object.h"

namespace qor {

class FakeTaskManager : public zym::object::Ifaces<IQorTaskManager> {
 public:
  zym::result_t GetTaskList(zym::types::vector_t<core::TaskInfo>& list, const UserCred& user) override {
    askedFor.emplace_back(user.userName);
    list.assign(tasks.begin(), tasks.end());
    if (raise) throw std::bad_alloc();
    return result;
  }

  // Adds a task with these settings, which must outlive the fake's use.
  void Add(std::uint32_t state, const char* name, const core::MemoryScanSettings* settings,
           std::uint32_t typeId = core::kMemoryScanSettingsId) {
    core::TaskInfo task;
    task.state = state;
    task.name = name;
    task.id = zym::types::string_t("id of ") + name;
    task.settings = {.typeId = typeId, .value = settings};
    tasks.push_back(std::move(task));
  }

  std::vector<core::TaskInfo> tasks;
  std::vector<std::string> askedFor;
  zym::result_t result = zym::ZYM_OK;
  bool raise = false;
};

}  // namespace qor
