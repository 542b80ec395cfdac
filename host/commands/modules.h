// pmhost modules: the code that is loaded in a process.
#pragma once

#include <memory>

#include "host/commands/command.h"

namespace pmhost {

std::unique_ptr<Command> MakeModules();

}  // namespace pmhost
