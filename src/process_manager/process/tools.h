// The record of a process, filled from /proc. Everything that reads a process comes here.
#pragma once

#include "process_manager/proc_parser.h"
#include "process_manager/process_records.h"
#include "process_manager/types.h"
#include "zym/iobject.h"
#include "zym/tracer.h"

namespace qor::process_manager {

// Fills what one look at a process shows: everything but the creator, the unique pids (those are the
// cache's), the effective ids, the groups and the environment. Pid 0 is the kernel. On failure, which is
// traced, the record is as it came. ZYM_E_NOT_FOUND: it is gone. ZYM_E_INVALID_ARGUMENT: the pid is all ones.
zym::result_t GetProcessInfo(zym::ITracer* tracer, procfs::IParser* procfs, PidType pid,
                             process_cache::ProcessInformation& info);

// Adds the effective user, the groups and the environment to the record of a process. ZYM_FALSE: it is the
// kernel's.
zym::result_t GetAdditionalProcessInfo(zym::ITracer* tracer, procfs::IParser* procfs,
                                       process_cache::ProcessInformation& info);

// Both.
zym::result_t GetFullProcessInfo(zym::ITracer* tracer, procfs::IParser* procfs, PidType pid,
                                 process_cache::ProcessInformation& info);

// The pid of an image, by the locator's IProcessManager.
zym::result_t GetPid(zym::IServiceLocator* locator, zym::ITracer* tracer, UniquePidType uniquePid,
                     PidType& pid);

}  // namespace qor::process_manager
