// The facts of one process, as an object.
#pragma once

#include <cstdint>

#include "process_manager/process_records.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace system_interceptors::process_manager {

// What was known of one process when the object was made. It never reads anything again, so it outlives its
// process. Any thread. QueryInterface answers IPosixProcessInformation2.
struct IProcessInformation : zym::IObject {
  static constexpr zym::iid_t kIid = zym::IidOf("system_interceptors::process_manager::IProcessInformation");

  virtual zym::result_t GetInformation(ProcessInformation& info) = 0;

 protected:
  ~IProcessInformation() = default;
};

// What Linux knows beyond the public record. ZYM_E_NOT_FOUND: it was not read for this object; the value is
// left alone. Everything was read for the objects of a snapshot; an object that was asked for by its pid has
// what the cache had, or the user of GetRealUserId alone. The audit user and the names are never read
// (ZYM_E_NOT_IMPLEMENTED).
struct IPosixProcessInformation : zym::IObject {
  static constexpr zym::iid_t kIid =
      zym::IidOf("system_interceptors::process_manager::IPosixProcessInformation");

  // "NAME=value". An empty environment counts as one that was not read.
  virtual zym::result_t GetEnvironmentVariables(zym::types::vector_t<zym::types::string_t>& variables) = 0;
  virtual zym::result_t GetAuditUserId(std::uint32_t& id) = 0;
  virtual zym::result_t GetUserName(zym::types::string_t& name) = 0;
  // Read from /proc it is the owner of the process's directory there: the effective user, or root for a
  // process that may not be dumped (proc(5)). Of a process that has changed its ids while the module listened
  // to the kernel it is the real user that the kernel reported. An exec keeps it.
  virtual zym::result_t GetRealUserId(std::uint32_t& id) = 0;
  virtual zym::result_t GetEffectiveUserId(std::uint32_t& id) = 0;
  virtual zym::result_t GetGroupName(zym::types::string_t& name) = 0;
  virtual zym::result_t GetRealGroupId(std::uint32_t& id) = 0;
  virtual zym::result_t GetEffectiveGroupId(std::uint32_t& id) = 0;

 protected:
  ~IPosixProcessInformation() = default;
};

// The same with mount namespaces; on one pointer with the first.
struct IPosixProcessInformation2 : IPosixProcessInformation {
  static constexpr zym::iid_t kIid =
      zym::IidOf("system_interceptors::process_manager::IPosixProcessInformation2");

  // ZYM_OK: the process is in the module's own mount namespace. ZYM_FALSE: it is in another, or in one that
  // isn't known.
  virtual zym::result_t IsHostMountNamespace() = 0;
  // The inode of the namespace; kNoMountNamespace when it isn't known. Never fails.
  virtual zym::result_t GetMountNamespaceId(std::uint64_t& id) = 0;

 protected:
  ~IPosixProcessInformation2() = default;
};

}  // namespace system_interceptors::process_manager
