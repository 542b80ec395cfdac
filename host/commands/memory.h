// pmhost memory: the regions of a process's memory, or bytes of it.
#pragma once

#include <memory>

#include "host/commands/command.h"

namespace pmhost {

std::unique_ptr<Command> MakeMemory();

}  // namespace pmhost
