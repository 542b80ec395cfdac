// Why a command ends: each is a sentence for a person and an exit status.
#pragma once

#include "host_kit/failure.h"

namespace pmhost {

// The work failed: exit status 1.
using host_kit::Failure;

using host_kit::Explain;
using host_kit::Require;

}  // namespace pmhost
