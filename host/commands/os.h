// pmhost os: distribution, kernel, workstation or server.
#pragma once

#include <memory>

#include "host/commands/command.h"

namespace pmhost {

std::unique_ptr<Command> MakeOs();

}  // namespace pmhost
