// pmhost ps: a snapshot of all processes.
#pragma once

#include <memory>

#include "host/commands/command.h"

namespace pmhost {

std::unique_ptr<Command> MakePs();

}  // namespace pmhost
