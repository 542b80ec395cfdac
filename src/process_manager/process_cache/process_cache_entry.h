// The entry of one pid in the process cache: the images that the pid ran, in order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "process_manager/process_cache/later_images.h"
#include "process_manager/process_records.h"
#include "process_manager/types.h"

namespace qor::process_manager::process_cache {

// A queue of the indices of versions. It holds one or two as a rule, and those without memory of its own:
// two std::deque in each entry would be three quarters of the cache.
class IndexQueue {
 public:
  [[nodiscard]] bool Empty() const noexcept { return m_size == 0; }
  [[nodiscard]] std::size_t Size() const noexcept { return m_size; }
  // Of a queue that isn't empty.
  [[nodiscard]] std::uint32_t Front() const noexcept { return m_first[0]; }
  // The first that isn't 0, or `none`. Indices ascend from the front on.
  [[nodiscard]] std::uint32_t FrontAfterZero(std::uint32_t none) const noexcept;

  void PushBack(std::uint32_t index);
  // An empty queue stays empty.
  void PopFront() noexcept;
  void PopBack() noexcept;

 private:
  std::uint32_t m_size = 0;
  std::array<std::uint32_t, 3> m_first{};
  std::vector<std::uint32_t> m_rest;  // what m_first has no room for
};

// Two sources may report one transition, one early and one late. The queues hold the indices of versions
// whose creation, or termination, has not been reported by the late one: whichever comes second finds the
// version that the first one made.
class Entry {
 public:
  // One version, whose index is in both queues.
  Entry(PidType pid, UniquePidType uniquePid);

  const PidType pid;
  bool ready = false;        // the first version has been filled in
  bool exitPending = false;  // the exit was seen, but an image still awaited its creation report
  IndexQueue creationQueue;
  IndexQueue terminationQueue;

  // There is always one; the last is the current image. Dropped ones count, so an index names its version
  // for good.
  [[nodiscard]] std::size_t VersionCount() const noexcept { return 1 + std::size_t{m_later.Newest()}; }
  // Of a version whose index is in a queue, or one of the last two.
  Version& At(std::size_t index) noexcept {
    return index == 0 ? m_first : m_later.At(static_cast<LaterImages::Serial>(index));
  }
  Version& First() noexcept { return m_first; }
  Version& Last() noexcept { return m_lastLater != nullptr ? *m_lastLater : m_first; }

  // The version at the front of a queue; null when the queue is empty or names a version that isn't there.
  Version* FrontOf(const IndexQueue& queue) noexcept;
  // The oldest with this unique pid, or null. Valid until the next search.
  Version* FindByUniquePid(UniquePidType uniquePid);

  // A new image, made by the process itself at `time`. Its creation and termination await their reports.
  Version& AppendVersion(UniquePidType uniquePid, std::uint64_t startSequence, zym::datetime_t time);

  // Drops the oldest versions whose indices are in no queue, while there are more than `kept` of them: at
  // least kFewestKept. The first counts and stays, for a fork and the link to the parent are written to it.
  // What is newer than another version that awaits a report stays, too. True: this entry drops for the first
  // time.
  bool DropReported(std::uint32_t kept);
  static constexpr std::uint32_t kFewestKept = LaterImages::kRecent + 1;

 private:
  // Null while the first is the last. It doesn't point to the first then: the processor would wait for it.
  Version* m_lastLater = nullptr;
  // Most processes run one image, or two: the first lies in the table's own memory.
  Version m_first;
  LaterImages m_later;  // the serial of a version is its index
};

void SetParent(const ProcessIds& parent, ProcessIds& child);
void SetCreator(const ProcessIds& creator, ProcessIds& created);

// Brings a stored image up to date from a read of the process, and moves out of `in` what it takes: all but
// the ids, and of the credentials those that `in` has. `keep`: the path, the command line and the flags that
// are already known of the image stay.
void Merge(ProcessInformation& in, ProcessInformation& stored, bool keep);
// The same for a process that was gone when it was read, so that `in` holds almost nothing: takes the path,
// the command line, the flags, the state and the environment, and leaves the rest of the stored image.
void MergeGone(ProcessInformation& in, ProcessInformation& stored, bool keep);

}  // namespace qor::process_manager::process_cache
