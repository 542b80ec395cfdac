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
// A root that is the mount namespace's own, as it isn't in a chroot: a path is the same to whoever joins the
// namespace.
std::string MissingNamespaceRoot();

}  // namespace test_support
