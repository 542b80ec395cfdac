// The tasks of a host that runs none.
#pragma once

#include "process_manager/services/task_manager.h"
#include "zym/object.h"

namespace pmhost {

// Any thread.
class TaskManager : public zym::object::Ifaces<qor::IQorTaskManager> {
 public:
  // Empties `tasks`.
  zym::result_t GetTaskList(zym::types::vector_t<qor::core::TaskInfo>& tasks,
                            const qor::UserCred& user) override;
};

}  // namespace pmhost
