// The services of the wall by name, for messages.
#pragma once

#include <string>

#include "zym/iobject.h"

namespace host_kit {

// "qor::IStartupDataProvider (0xa26c8413)"; "interface 0x00001234" for an id that is no service of the SDK.
std::string DescribeService(zym::iid_t iid);

}  // namespace host_kit
