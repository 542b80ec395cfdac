#include "process_manager/process_cache/process_cache_entry.h"

#include <algorithm>
#include <utility>

namespace qor::process_manager::process_cache {

void IndexQueue::PushBack(std::uint32_t index) {
  if (m_size < m_first.size())
    m_first[m_size] = index;
  else
    m_rest.push_back(index);
  ++m_size;
}

void IndexQueue::PopFront() noexcept {
  if (m_size == 0) return;
  --m_size;
  std::ranges::copy(m_first.begin() + 1, m_first.end(), m_first.begin());
  if (m_rest.empty()) return;
  m_first.back() = m_rest.front();
  m_rest.erase(m_rest.begin());
}

void IndexQueue::PopBack() noexcept {
  if (m_size == 0) return;
  --m_size;
  if (!m_rest.empty()) m_rest.pop_back();
}

std::uint32_t IndexQueue::FrontAfterZero(std::uint32_t none) const noexcept {
  const std::uint32_t position = m_size != 0 && m_first[0] == 0 ? 1 : 0;
  return position < m_size ? m_first[position] : none;
}

Entry::Entry(PidType pid_, UniquePidType uniquePid) : pid(pid_) {
  m_first.info.pid = pid;
  m_first.info.uniquePid = uniquePid;
  creationQueue.PushBack(0);
  terminationQueue.PushBack(0);
}

Version* Entry::FrontOf(const IndexQueue& queue) noexcept {
  return !queue.Empty() && queue.Front() < VersionCount() ? &At(queue.Front()) : nullptr;
}

Version* Entry::FindByUniquePid(UniquePidType uniquePid) {
  return m_first.info.uniquePid == uniquePid ? &m_first : m_later.FindByUniquePid(uniquePid);
}

Version& Entry::AppendVersion(UniquePidType uniquePid, std::uint64_t startSequence, zym::datetime_t time) {
  Version version;
  version.startSequence = startSequence;
  const ProcessInformation& previous = Last().info;
  AssignGroup<ProcessIds>(version.info, previous);
  version.info.uniquePid = uniquePid;
  // The creator of an image that an exec makes is the image that it replaces.
  SetCreator(previous, version.info);
  version.info.startTime = time;
  m_lastLater = &m_later.Append(std::move(version));
  creationQueue.PushBack(m_later.Newest());
  terminationQueue.PushBack(m_later.Newest());
  return *m_lastLater;
}

bool Entry::DropReported(std::uint32_t kept) {
  const LaterImages::Serial end = m_later.Newest() + 1;
  const LaterImages::Serial awaited =
      std::min(creationQueue.FrontAfterZero(end), terminationQueue.FrontAfterZero(end));
  m_later.ShareTextsBefore(awaited);
  const LaterImages::Serial droppedBefore = m_later.Dropped();
  while (awaited - m_later.Dropped() > kept) m_later.DropOldest();
  return droppedBefore == 0 && m_later.Dropped() != 0;
}

void SetParent(const ProcessIds& parent, ProcessIds& child) {
  child.parentPid = parent.pid;
  child.parentUniquePid = parent.uniquePid;
}

void SetCreator(const ProcessIds& creator, ProcessIds& created) {
  created.creatorPid = creator.pid;
  created.creatorUniquePid = creator.uniquePid;
}

void MergeGone(ProcessInformation& in, ProcessInformation& stored, bool keep) {
  if (!keep || !stored.commandLine || stored.commandLine->empty())
    stored.commandLine = std::move(in.commandLine);
  if (!keep || stored.imagePath.empty()) stored.imagePath = std::move(in.imagePath);
  if (!keep) stored.flags = in.flags;
  stored.state = in.state;
  stored.environment = std::move(in.environment);
}

void Merge(ProcessInformation& in, ProcessInformation& stored, bool keep) {
  MergeGone(in, stored, keep);
  AssignGroup<ProcessLifetime>(stored, in);
  stored.workingDirectory = std::move(in.workingDirectory);
  stored.mountNamespaceId = in.mountNamespaceId;
  if (in.realUserId) stored.realUserId = in.realUserId;
  if (in.effectiveUserId) stored.effectiveUserId = in.effectiveUserId;
  if (in.realGroupId) stored.realGroupId = in.realGroupId;
  if (in.effectiveGroupId) stored.effectiveGroupId = in.effectiveGroupId;
}

}  // namespace qor::process_manager::process_cache
