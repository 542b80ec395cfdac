// Mounts that only a part of this process sees.
#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <string>
#include <thread>

#include "support/child_process.h"

namespace test_support {

// Runs `body` on a thread with a mount namespace of its own, which is also that of every thread and every
// process that begins there; the rest of this process sees none of it.
inline void InPrivateMounts(const std::function<void()>& body) {
  std::thread([&] {
    const std::string missing = EnterPrivateMounts();
    ASSERT_EQ(missing, "");
    try {
      body();
    } catch (const std::exception& e) {
      ADD_FAILURE() << e.what();
    }
  }).join();
}

}  // namespace test_support
