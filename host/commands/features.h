// pmhost features: which features run, and by which technologies.
#pragma once

#include <memory>

#include "host/commands/command.h"

namespace pmhost {

std::unique_ptr<Command> MakeFeatures();

}  // namespace pmhost
