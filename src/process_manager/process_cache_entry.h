// What the cache knows of one pid: the images that it ran, in order.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "process_manager/process_records.h"
#include "process_manager/types.h"

namespace qor::process_manager::process_cache {

// One image of one pid. Sequence numbers are 0 until the transition is reported.
struct Version {
  std::uint64_t startSequence = 0;
  std::uint64_t endSequence = 0;
  ProcessInformation info;
};

// Two sources may report one transition, one early and one late. The queues hold the indices of versions
// whose creation, or termination, has not been reported by the late one: whichever comes second finds the
// version that the first one made.
struct Entry {
  Entry(PidType pid, UniquePidType uniquePid);

  PidType pid;
  bool ready = false;             // the first version has been filled in
  bool exitPending = false;       // the exit was seen, but an image still awaited its creation report
  std::vector<Version> versions;  // never empty; the last one is the current image
  std::deque<std::uint64_t> creationQueue{0};
  std::deque<std::uint64_t> terminationQueue{0};

  Version& First() { return versions.front(); }
  Version& Last() { return versions.back(); }

  // The version at the front of a queue; null when the queue is empty or names a version that isn't there.
  Version* FrontOf(const std::deque<std::uint64_t>& queue);
  Version* FindByUniquePid(UniquePidType uniquePid);

  // A new image, made by the process itself at `time`. Its creation and termination await their reports.
  Version& AppendVersion(UniquePidType uniquePid, std::uint64_t startSequence, zym::datetime_t time);
};

// How a read of /proc joins what is stored. `keep`: what is already known of the image stays.
void Merge(ProcessInformation& in, ProcessInformation& stored, bool keep);
// The same for a process that was gone when it was read, where `in` holds almost nothing.
void MergeGone(ProcessInformation& in, ProcessInformation& stored, bool keep);

inline void PopFront(std::deque<std::uint64_t>& queue) {
  if (!queue.empty()) queue.pop_front();
}
inline void PopBack(std::deque<std::uint64_t>& queue) {
  if (!queue.empty()) queue.pop_back();
}

}  // namespace qor::process_manager::process_cache
