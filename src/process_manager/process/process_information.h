// The facts of one process, frozen when the object is made.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "process_manager/process_information.h"
#include "process_manager/process_records.h"
#include "process_manager/types.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// Asks the process cache first; what the cache doesn't have is read from /proc and added to the cache.
// Nothing changes after construction.
class ProcessInformation
    : public zym::object::Ifaces<system_interceptors::process_manager::IProcessInformation,
                                 system_interceptors::process_manager::IPosixProcessInformation,
                                 system_interceptors::process_manager::IPosixProcessInformation2>,
      public zym::ServiceProvider<zym::IServiceLocator, zym::ITracer>,
      public zym::NonCopyable {
 public:
  // `full`: the effective ids, the groups and the environment belong to it; when the cache has the process
  // without them and they can't be read, the object goes on with what it has. Throws
  // zym::CheckResultFailedException with the code of what failed: a service, or the read of the process.
  ProcessInformation(zym::IServiceLocator* locator, PidType pid, bool full);
  // An image that the cache doesn't have is looked for by its pid, and read as what it is now.
  ProcessInformation(zym::IServiceLocator* locator, const UniquePidType& uniquePid, bool full);

  zym::result_t GetInformation(system_interceptors::process_manager::ProcessInformation& info) override;

  zym::result_t GetEnvironmentVariables(zym::types::vector_t<zym::types::string_t>& variables) override;
  zym::result_t GetAuditUserId(std::uint32_t& id) override;
  zym::result_t GetUserName(zym::types::string_t& name) override;
  zym::result_t GetRealUserId(std::uint32_t& id) override;
  zym::result_t GetEffectiveUserId(std::uint32_t& id) override;
  zym::result_t GetGroupName(zym::types::string_t& name) override;
  zym::result_t GetRealGroupId(std::uint32_t& id) override;
  zym::result_t GetEffectiveGroupId(std::uint32_t& id) override;
  zym::result_t IsHostMountNamespace() override;
  zym::result_t GetMountNamespaceId(std::uint64_t& id) override;

 protected:
  // Exactly one key is to be set: without any, std::bad_optional_access.
  ProcessInformation(zym::IServiceLocator* locator, std::optional<PidType> pid,
                     std::optional<UniquePidType> uniquePid, bool full);

 private:
  enum ReadLevel : std::uint8_t { kBase = 0, kFull = 1, kAdditional = 2 };

  zym::result_t GetInfoFromProcfs(zym::IServiceLocator* locator, ReadLevel level);
  [[nodiscard]] bool LacksAdditionalInfo() const;
  [[nodiscard]] std::string Describe() const;

  zym::intrusive_ptr<zym::ITracerCategoryFilter> m_tracerCategoryFilter;
  const std::optional<PidType> m_pid;
  const std::optional<UniquePidType> m_uniquePid;
  process_cache::ProcessInformation m_info;
};

}  // namespace qor::process_manager
