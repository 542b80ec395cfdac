#include "host/process_record.h"

namespace pmhost {

ProcessRecord FromModule(const system_interceptors::process_manager::ProcessInformation& known) {
  return {
      .pid = known.pid,
      .uniquePid = UnlessAllOnes(std::optional(known.uniquePid)),
      .parentPid = UnlessAllOnes(std::optional(known.parentPid)),
      .uniqueParentPid = UnlessAllOnes(std::optional(known.parentUniquePid)),
      .creatorPid = UnlessAllOnes(std::optional(known.creatorPid)),
      .uniqueCreatorPid = UnlessAllOnes(std::optional(known.creatorUniquePid)),
      .sessionId = known.sessionId,
      .startTime = UnlessZero(known.startTime),
      .exitTime = UnlessZero(known.exitTime),
      .imagePath = known.imagePath,
      .workingDirectory = known.workingDirectory,
      .commandLine = known.commandLine,
      .userId = known.userId,
      .flags = known.flags,
      .state = known.state,
  };
}

std::string_view StateName(std::uint32_t state) {
  switch (state) {
    case qor::kStarting:
      return "starting";
    case qor::kCreated:
      return "created";
    default:
      return "terminated";
  }
}

}  // namespace pmhost
