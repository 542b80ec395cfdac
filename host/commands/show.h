// pmhost show: all that is known of one process.
#pragma once

#include <memory>

#include "host/commands/command.h"

namespace pmhost {

std::unique_ptr<Command> MakeShow();

}  // namespace pmhost
