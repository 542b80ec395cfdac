// What a test needs of this process and this kernel, as a sentence to skip with: "" when it is there.
#pragma once

#include <gtest/gtest.h>
#include <linux/capability.h>

#include <string>

// Skips the test, and says what is missing.
#define SKIP_IF(missing) \
  if (const std::string lacking = (missing); !lacking.empty()) GTEST_SKIP() << lacking

namespace test_support {

// A capability in this thread's effective set; `purpose` goes into the sentence: "to become another user".
std::string MissingRight(int capability, const std::string& purpose);
// The kernel's proc connector, and the right to listen to it.
std::string MissingProcConnector();
// A mount namespace of one's own whose mounts nobody else sees.
std::string MissingMountRights();

}  // namespace test_support
