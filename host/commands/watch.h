// pmhost watch: each process start, exec and exit.
#pragma once

#include <memory>

#include "host/commands/command.h"

namespace pmhost {

std::unique_ptr<Command> MakeWatch();

}  // namespace pmhost
