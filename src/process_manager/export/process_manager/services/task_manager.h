// Tasks of the product.
//
// Optional. Asked for by FeatureTechsAggregator::Report (qor_common/feature_techs_aggregator.h), on the
// thread that asks for the report: does a memory scan run? The module itself doesn't ask for it.
#pragma once

#include <cstdint>

#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

// Owner of tasks.
struct UserCred {
  zym::types::string_t userName;

  static UserCred GetProductUserCred() { return {zym::types::string_t("root")}; }
};

namespace core {

inline constexpr std::uint32_t kMemoryScanSettingsId = 0xe81b1607;

struct MemoryScanSettings {
  bool scanMemory = false;
  bool useAEP = false;
};

// A serialised value under its type id; `value` points at the structure of that id, which the host keeps.
struct TaskSettings {
  std::uint32_t typeId = 0;
  const void* value = nullptr;
};

struct TaskInfo {
  std::uint32_t state = 0;  // 6 and 7: the task doesn't run any more
  zym::types::string_t name;
  zym::types::string_t id;
  TaskSettings settings;
};

}  // namespace core

// Any thread.
struct IQorTaskManager : zym::IObject {
  static constexpr zym::iid_t kIid = 0x887632c7;

  // ZYM_OK: `tasks` holds the tasks of this user. A failure counts as no tasks.
  virtual zym::result_t GetTaskList(zym::types::vector_t<core::TaskInfo>& tasks, const UserCred& user) = 0;

 protected:
  ~IQorTaskManager() = default;
};

}  // namespace qor
