#include "host/services/task_manager.h"

namespace pmhost {

zym::result_t TaskManager::GetTaskList(zym::types::vector_t<qor::core::TaskInfo>& tasks,
                                       const qor::UserCred&) {
  tasks.clear();
  return zym::ZYM_OK;
}

}  // namespace pmhost
