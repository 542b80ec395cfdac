#include "process_manager/process/process_description.h"

#include <optional>
#include <string_view>

#include "zym/utf.h"

namespace qor::process_manager {
namespace {

std::string IdText(const std::optional<std::uint32_t>& id) {
  return std::to_string(id.value_or(0xffffffff));
}

std::string StateText(std::uint32_t state) {
  switch (state) {
    case kStarting:
      return "Starting";
    case kCreated:
      return "Created";
    case kTerminated:
      return "Terminated";
    default:
      return "Unsupported (" + std::to_string(state) + ")";
  }
}

// The bar before "System" stands there also when nothing precedes it; that is meant.
std::string FlagsText(std::uint32_t flags) {
  if (flags == 0) return "0";
  std::string text;
  if ((flags & kNoBackingImage) != 0) text += "NoBackingImage";
  if ((flags & kSystemProcess) != 0) text += "|System";
  return text;
}

std::string EnvironmentText(const process_cache::ProcessInformation& info) {
  std::string text;
  const char* separator = "";
  for (const zym::types::string_t& variable : info.environment) {
    text.append(separator).append(variable);
    separator = ";";
  }
  return text;
}

}  // namespace

std::string DescribeProcess(const process_cache::ProcessInformation& info,
                            zym::ITracerCategoryFilter* filter) {
  const bool open = filter != nullptr && filter->Check(zym::ITracerCategoryFilter::kSensitive) == zym::ZYM_OK;
  const std::string skipped(zym::kSkippedByPrivacyPolicy);
  std::string text = "pid: " + std::to_string(info.pid);
  text += ", upid: " + std::to_string(info.uniquePid);
  text += ", ppid: " + std::to_string(info.parentPid);
  text += ", uppid: " + std::to_string(info.parentUniquePid);
  text += ", cpid: " + std::to_string(info.creatorPid);
  text += ", ucpid: " + std::to_string(info.creatorUniquePid);
  text += ", ruid: " + IdText(info.realUserId);
  text += ", euid: " + IdText(info.effectiveUserId);
  text += ", rgid: " + IdText(info.realGroupId);
  text += ", egid: " + IdText(info.effectiveGroupId);
  text += ", state: " + StateText(info.state);
  text += ", flags: " + FlagsText(info.flags);
  text += ", exe: " + zym::Utf16ToUtf8Lossy(info.imagePath);
  text += ", cmd: " + (!open              ? skipped
                       : info.commandLine ? zym::Utf16ToUtf8Lossy(*info.commandLine)
                                          : std::string());
  text += ", env: " + (open ? EnvironmentText(info) : skipped);
  text += ", nsmnt: " + std::to_string(info.mountNamespaceId);
  return text;
}

}  // namespace qor::process_manager
