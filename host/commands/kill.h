// pmhost kill: the end of a process.
#pragma once

#include <memory>

#include "host/commands/command.h"

namespace pmhost {

std::unique_ptr<Command> MakeKill();

}  // namespace pmhost
