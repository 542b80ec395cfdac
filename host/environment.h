// The environment that pmhost takes from whoever started it.
#pragma once

namespace pmhost {

// In a program that has more rights than its starter (file capabilities, set-user-id: AT_SECURE,
// getauxval(3)), removes the variables that would change what the module reads and how it deletes files, and
// says so on standard error. Call it first in main: the module reads them once.
void RemoveUntrustedVariables();

}  // namespace pmhost
