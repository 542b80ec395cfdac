// A tracer in front of another one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "zym/object.h"
#include "zym/tracer.h"

namespace test_support {

// Passes records on, and lets a test act at the moment when one is written.
class WatchedTracer : public zym::object::Ifaces<zym::ITracer> {
 public:
  explicit WatchedTracer(zym::intrusive_ptr<zym::ITracer> inner) : m_inner(std::move(inner)) {}

  zym::result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override {
    return m_inner->GetRecord(level, buffer, size);
  }
  void CommitRecord(void* buffer, std::uint64_t length) override {
    const std::string text(static_cast<const char*>(buffer), length);
    m_inner->CommitRecord(buffer, length);
    if (!trigger.empty() && text.find(trigger) != std::string::npos) action();
  }

  // Set before other threads trace.
  std::string trigger;
  std::function<void()> action;

 private:
  zym::intrusive_ptr<zym::ITracer> m_inner;
};

}  // namespace test_support
