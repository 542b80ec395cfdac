#include "process_manager/process_cache_entry.h"

#include <algorithm>
#include <utility>

namespace qor::process_manager::process_cache {
namespace {

void MergeImage(ProcessInformation& in, ProcessInformation& stored, bool keep) {
  if (!keep || !stored.commandLine || stored.commandLine->empty())
    stored.commandLine = std::move(in.commandLine);
  if (!keep || stored.imagePath.empty()) stored.imagePath = std::move(in.imagePath);
}

}  // namespace

Entry::Entry(PidType pid_, UniquePidType uniquePid) : pid(pid_), versions(1) {
  First().info.pid = pid;
  First().info.uniquePid = uniquePid;
}

Version* Entry::FrontOf(const std::deque<std::uint64_t>& queue) {
  return !queue.empty() && queue.front() < versions.size() ? &versions[queue.front()] : nullptr;
}

Version* Entry::FindByUniquePid(UniquePidType uniquePid) {
  const auto found =
      std::ranges::find(versions, uniquePid, [](const Version& version) { return version.info.uniquePid; });
  return found != versions.end() ? &*found : nullptr;
}

Version& Entry::AppendVersion(UniquePidType uniquePid, std::uint64_t startSequence, zym::datetime_t time) {
  Version version;
  version.startSequence = startSequence;
  const ProcessInformation& previous = Last().info;
  version.info.pid = previous.pid;
  version.info.parentPid = previous.parentPid;
  version.info.parentUniquePid = previous.parentUniquePid;
  // The creator of an image that an exec makes is the image that it replaces.
  version.info.creatorPid = previous.pid;
  version.info.creatorUniquePid = previous.uniquePid;
  version.info.uniquePid = uniquePid;
  version.info.startTime = time;
  versions.push_back(std::move(version));
  creationQueue.push_back(versions.size() - 1);
  terminationQueue.push_back(versions.size() - 1);
  return Last();
}

void Merge(ProcessInformation& in, ProcessInformation& stored, bool keep) {
  stored.sessionId = in.sessionId;
  stored.startTime = in.startTime;
  stored.exitTime = in.exitTime;
  stored.state = in.state;
  stored.workingDirectory = std::move(in.workingDirectory);
  stored.mountNamespaceId = in.mountNamespaceId;
  MergeImage(in, stored, keep);
  if (!keep) stored.flags = in.flags;
  if (in.realUserId) stored.realUserId = in.realUserId;
  if (in.effectiveUserId) stored.effectiveUserId = in.effectiveUserId;
  if (in.realGroupId) stored.realGroupId = in.realGroupId;
  if (in.effectiveGroupId) stored.effectiveGroupId = in.effectiveGroupId;
  stored.environment = std::move(in.environment);
}

void MergeGone(ProcessInformation& in, ProcessInformation& stored, bool keep) {
  MergeImage(in, stored, keep);
  stored.state = in.state;
  if (!keep) stored.flags = in.flags;
  stored.environment = std::move(in.environment);
}

}  // namespace qor::process_manager::process_cache
