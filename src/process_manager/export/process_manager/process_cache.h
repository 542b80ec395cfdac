// The two faces of the process cache (class id class_ids::kProcessCache). A host makes one cache and offers
// it in its locator under both ids, from where the module takes it again.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "process_manager/process_records.h"
#include "process_manager/types.h"
#include "zym/iobject.h"

namespace qor::process_manager {
namespace process_cache {

// How the cache answers an event source: one transition of one image.
struct EventInfo {
  bool skip = false;    // this record makes no event
  bool isFork = false;  // the creation of a new process
  bool isExec = false;  // the end of an image whose process goes on
  bool isFake = false;  // no source reported this transition
  std::uint64_t sequence = 0;
  ProcessInformation info;
  std::uint64_t timestamp = 0;  // nanoseconds of CLOCK_MONOTONIC; set by the caller before the call
};

}  // namespace process_cache

// Questions by pid and unique pid. Any thread; answers are copies. The operations with a result trace what is
// raised in them and give false, but for Get. Get and Update throw std::bad_alloc, and std::system_error when
// the cache's lock can't be taken; Get throws zym::datetime::TimeSystemError, too, for a process that ended
// at a time which the platform can't hold.
struct IProcessInfoProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0xffc9e198;

  // A process that is alive, or ended at most a second ago. False: not known, or not well enough.
  virtual bool Get(pid_t pid, process_cache::ProcessInformation& info) = 0;
  // Any image of a process that is alive, the earlier ones too.
  virtual bool GetByUniquePid(UniquePidType uniquePid, process_cache::ProcessInformation& info) = 0;
  // Teaches the cache a process read from /proc, and writes its unique pids back into `info`.
  virtual void Update(process_cache::ProcessInformation& info) = 0;
  // Adds the effective user, the groups and the environment of `info` to the image with its unique pid.
  virtual bool UpdateAdditionalInfo(process_cache::ProcessInformation& info) = 0;

 protected:
  ~IProcessInfoProvider() = default;
};

// What the event sources report. Any thread. The startTime of a given record is the transition's time.
// Operations may throw zym::CheckFailedException, which the sources catch.
struct IEventInfoProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0x79864d30;

  virtual void OnFork(process_cache::ProcessInformation&& info, process_cache::EventInfo& create) = 0;
  virtual void OnExec(process_cache::ProcessInformation&& info, process_cache::EventInfo& exit,
                      process_cache::EventInfo& create) = 0;
  virtual void OnExit(pid_t pid, process_cache::EventInfo& exit) = 0;
  virtual void OnExecPerm(process_cache::ProcessInformation&& info, process_cache::EventInfo& exit,
                          process_cache::EventInfo& create) = 0;
  virtual void OnExecDeny(process_cache::ProcessInformation&& info, process_cache::EventInfo& exit,
                          process_cache::EventInfo& create, process_cache::EventInfo& forkExit,
                          process_cache::EventInfo& forkCreate) = 0;
  // ZYM_E_NOT_FOUND, with `create.skip` set: the process is not known any more.
  virtual zym::result_t OnCreateProcess(bool shouldUpdateExecInfo, process_cache::EventInfo& create) = 0;
  virtual void OnExitProcess(process_cache::EventInfo& exit) = 0;
  virtual void OnUidChange(pid_t pid, uid_t realUserId, uid_t effectiveUserId) = 0;
  virtual void OnGidChange(pid_t pid, gid_t realGroupId, gid_t effectiveGroupId) = 0;

 protected:
  ~IEventInfoProvider() = default;
};

}  // namespace qor::process_manager
