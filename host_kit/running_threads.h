// Whether a process still has a thread that runs.
#pragma once

#include "process_manager/types.h"

namespace host_kit {

// True while a thread of the process runs, its first or another; of a process whose threads are all about to
// end, until the last of them has. False for a zombie and for a pid that nobody has. A thread's own id is no
// process. Needs no right. Seen by a pidfd, which can be read once all threads have ended (pidfd_open(2)); a
// process counts as one that runs when there is no descriptor or memory left to look at it.
[[nodiscard]] bool HasRunningThread(qor::PidType pid);

}  // namespace host_kit
