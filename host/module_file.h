// The file of the module that pmhost loads.
#pragma once

#include <string>

namespace pmhost {

// The absolute path of `named`, the value of --module; without one, that of the module built or installed
// with this program. Throws Failure when there is no such module.
std::string FindModule(const std::string& named);

}  // namespace pmhost
