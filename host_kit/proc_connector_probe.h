// Whether the kernel's process events reach this process, and what is in the way if they don't.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace host_kit {

// Subscribes with a socket of its own, which is closed again, and waits at most so long for the kernel's
// acknowledgement. In a PID namespace or a user namespace there is none: the subscription looks like every
// other there, and is ignored (seen on 6.18). Empty: events come. Otherwise a sentence without an end, that
// names what is in the way: a missing right, or a namespace.
[[nodiscard]] std::string FindProcConnectorObstacle(
    std::chrono::milliseconds deadline = std::chrono::seconds(1));

// Why a subscription isn't acknowledged, for a process in namespaces with these inodes; 0: not known.
[[nodiscard]] std::string ExplainSilence(std::uint64_t pidNamespace, std::uint64_t userNamespace);

}  // namespace host_kit
