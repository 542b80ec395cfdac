// The two interfaces of the process cache (class id class_ids::kProcessCache). A host makes one cache and
// offers it in its locator under both ids, from where the module takes it again.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "process_manager/process_records.h"
#include "process_manager/types.h"
#include "zym/iobject.h"

namespace qor::process_manager {
namespace process_cache {

// One transition of one image, as the cache answers an event source: the source makes an event of it.
struct EventInfo {
  bool skip = false;            // this record makes no event
  bool isFork = false;          // the creation of a new process
  bool isExec = false;          // the end of an image whose process goes on
  bool isFake = false;          // no source reported this transition
  std::uint64_t sequence = 0;   // 1 and up, in the order in which the cache learned of the transitions
  ProcessInformation info;      // a copy of the image
  std::uint64_t timestamp = 0;  // nanoseconds of CLOCK_MONOTONIC
};

}  // namespace process_cache

// Questions by pid and unique pid. Any thread; answers are copies. The operations that return bool trace
// what is raised in them and return false, but for Get. Get and Update throw std::bad_alloc, and
// std::system_error when the cache's lock can't be taken; Get throws zym::datetime::TimeSystemError, too, for
// a process that ended at a time which the platform can't hold.
struct IProcessInfoProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0xffc9e198;

  // A process that is alive, or ended at most a second ago. False: not known, or not well enough.
  virtual bool Get(pid_t pid, process_cache::ProcessInformation& info) = 0;
  // Any image of a process that is alive, the earlier ones too: at most 4,096 of them whose begin and end
  // were both reported, the first and the newest; and all that still await a report. Of images with equal
  // unique pids the oldest that is kept. False: not known, or not any more.
  virtual bool GetByUniquePid(UniquePidType uniquePid, process_cache::ProcessInformation& info) = 0;
  // Adds a process that was read from /proc: all of `info` but its creator and its unique pids is taken,
  // unless the process is known already. Writes the ids that the cache has for it into `info`.
  virtual void Update(process_cache::ProcessInformation& info) = 0;
  // Adds the effective user, the groups and the environment of `info` to the image with its unique pid, which
  // is found as by GetByUniquePid.
  virtual bool UpdateAdditionalInfo(process_cache::ProcessInformation& info) = 0;

 protected:
  ~IProcessInfoProvider() = default;
};

// The reports of the event sources. Any thread.
//
// A source that reports what happened (OnFork, OnExec, OnExit) does so in the kernel's order. A source that
// is asked before an exec (OnExecPerm) does so while the process is held. Both may report one exec: whichever
// comes second gets the images and the sequence numbers of the first. A source makes events of the records
// that it gets. Each goes to OnCreateProcess or OnExitProcess, once, before the handlers see it, and in the
// order of the reports.
//
// A given `info` is moved from. Its fields:
//   pid        always set
//   parentPid  set for OnFork, OnExecPerm, and OnExec of a process that could be read
//   startTime  the time of the transition: the end of the old image and the start of the new one, or the
//              start of the process
//   state      kTerminated for OnFork and OnExec of a process that was gone when it was read. Then its path,
//              command line, flags (kNoBackingImage), state and environment are taken, empty as they may
//              be, and nothing else. Any other state: `info` is as GetProcessInfo reads it, and all of it is
//              taken, of the credentials those that are set
// The creator and the unique pids are the cache's, and not looked at.
//
// A returned record has `sequence` and `info` set, and isFork or isExec where the operation says so. Nothing
// else in it is changed, and no flag is ever cleared: before the call, `timestamp` is set and `skip` is
// false. A record that comes back with `skip` makes no event, and has no sequence number.
//
// The operations throw std::bad_alloc, std::system_error when the cache's lock can't be taken, and what each
// says itself.
struct IEventInfoProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0x79864d30;

  // A process was made. `create`: the start of its first image, with isFork. The image has the parent's
  // flags, path and command line; the latter two are taken from `info` where the parent has none.
  virtual void OnFork(process_cache::ProcessInformation&& info, process_cache::EventInfo& create) = 0;

  // A process has a new image. `exit`: the end of the old one, with isExec. `create`: the start of the new
  // one, which has the real ids of the old one. Throws zym::CheckFailedException when the process has no
  // image that awaits its end.
  virtual void OnExec(process_cache::ProcessInformation&& info, process_cache::EventInfo& exit,
                      process_cache::EventInfo& create) = 0;

  // A process ended, now. `exit`: the end of its image, or `skip` when the process isn't known. Throws
  // zym::CheckFailedException when the process has no image that awaits its end.
  virtual void OnExit(pid_t pid, process_cache::EventInfo& exit) = 0;

  // A process is held that is about to exec. `info`: the process as it is, with the path, the command line
  // and the environment of what it wants to run. `exit` and `create` as of OnExec, but for the real ids; from
  // here on the new image is the current one. When the exec is refused, or fails, OnExecDeny has to follow.
  virtual void OnExecPerm(process_cache::ProcessInformation&& info, process_cache::EventInfo& exit,
                          process_cache::EventInfo& create) = 0;

  // The exec that OnExecPerm announced didn't take place: the process goes on as what it was, as an image
  // with a new unique pid. `info`: the process, read again.
  //   forkExit     the end of the refused image, with isExec
  //   forkCreate   the start of the image with which the process goes on
  // are for the handlers that saw the events of OnExecPerm, and
  //   exit         the end of the image before the refused one, with isExec and the number of OnExecPerm
  //   create       the same as forkCreate
  // for those that didn't.
  //
  // When OnExitProcess came in between, the process has ended: `forkExit` comes without isExec, and the
  // others with `skip`. Throws zym::CheckFailedException when the process isn't known, or no exec of it was
  // announced; nothing is changed then.
  virtual void OnExecDeny(process_cache::ProcessInformation&& info, process_cache::EventInfo& exit,
                          process_cache::EventInfo& create, process_cache::EventInfo& forkExit,
                          process_cache::EventInfo& forkCreate) = 0;

  // A create event is about to be handled. `create`: a record of the reports above. With
  // `shouldUpdateExecInfo` its path, command line, environment and flags are newer than the cache's, and are
  // stored in the image with its unique pid. ZYM_OK: done. ZYM_E_NOT_FOUND: the process isn't known any more,
  // and `skip` is set; or, without `skip`, the process is known and the image that is to be updated isn't.
  virtual zym::result_t OnCreateProcess(bool shouldUpdateExecInfo, process_cache::EventInfo& create) = 0;

  // An exit event is about to be handled. `exit`: a record of the reports above. Sets `skip` when the process
  // isn't known any more. Without isExec the process is done, and IProcessInfoProvider::Get finds it for a
  // second at most; but one with an announced image, of which neither OnExec nor OnExecDeny was heard, is
  // kept until OnExecDeny comes or room is needed.
  virtual void OnExitProcess(process_cache::EventInfo& exit) = 0;

  // A process changed its ids: stores them in its current image. A process that isn't known is ignored.
  virtual void OnUidChange(pid_t pid, uid_t realUserId, uid_t effectiveUserId) = 0;
  virtual void OnGidChange(pid_t pid, gid_t realGroupId, gid_t effectiveGroupId) = 0;

 protected:
  ~IEventInfoProvider() = default;
};

}  // namespace qor::process_manager
