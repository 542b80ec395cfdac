// Holds a test to letting go of every object that it made.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "zym/module_counter.h"

namespace test_support {

// The first member of a fixture: looks when all the others are gone.
class ObjectCount {
 public:
  ObjectCount() = default;
  ~ObjectCount() { EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_before) << "objects are still alive"; }
  ObjectCount(const ObjectCount&) = delete;
  ObjectCount& operator=(const ObjectCount&) = delete;

 private:
  const std::int32_t m_before = zym::ModuleObjectCounter::Value();
};

}  // namespace test_support
