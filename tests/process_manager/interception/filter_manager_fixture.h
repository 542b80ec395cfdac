// A table of filters whose source only counts how it is started and stopped.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "process_manager/interception/filter_manager.h"
#include "support/fake_services.h"
#include "zym/module_counter.h"
#include "zym/object.h"

namespace qor::process_manager {

inline constexpr std::uint32_t kType = system_interceptors::event_type::kCreateProcess;
inline constexpr std::uint32_t kOtherType = system_interceptors::event_type::kExitProcess;

// An event that nobody looks into.
class SomeEvent : public zym::object::Ifaces<ISystemEvent> {
 public:
  zym::result_t GetEventId(const std::uint64_t**) override { return zym::ZYM_E_NOT_FOUND; }
  zym::result_t GetParam(std::uint32_t, zym::types::range_t<const std::uint8_t*>*) override {
    return zym::ZYM_E_NOT_SUPPORTED;
  }
  std::uint32_t GetType() override { return kType; }
  PidType GetPid() override { return 0; }
  PidType GetCpid() override { return 0; }
  bool IsFake() override { return false; }
  bool Complete() override { return true; }
  zym::types::string16_t ToString() override { return {}; }
};

// Notes the ids that it is called with, and then does what the test asks for.
class Handler : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
 public:
  explicit Handler(std::function<void(std::uint32_t)> then = {}) : m_then(std::move(then)) {}

  void OnEvent(ISystemEvent*, std::uint32_t filterId) override {
    {
      const std::scoped_lock lock(m_mutex);
      m_calls.push_back(filterId);
    }
    if (m_then) m_then(filterId);
  }

  std::vector<std::uint32_t> Calls() const {
    const std::scoped_lock lock(m_mutex);
    return m_calls;
  }

 private:
  mutable std::mutex m_mutex;  // guards m_calls
  std::vector<std::uint32_t> m_calls;
  const std::function<void(std::uint32_t)> m_then;
};

template <class Filter>
class Source : public zym::object::Ifaces<>, public FilterManager<Filter> {
 public:
  explicit Source(zym::IServiceLocator* locator) : FilterManager<Filter>(locator, "Source") {}

  zym::result_t Start() override {
    ++starts;
    if (onStart) onStart();
    return startResult;
  }
  zym::result_t Stop() override {
    ++stops;
    if (onStop) onStop();
    return stopResult;
  }

  std::atomic<int> starts{0};
  std::atomic<int> stops{0};
  std::function<void()> onStart;
  std::function<void()> onStop;
  zym::result_t startResult = zym::ZYM_OK;
  zym::result_t stopResult = zym::ZYM_OK;
};

using Ids = std::vector<unsigned int>;
inline zym::types::range_t<unsigned int*> RangeOf(Ids& ids) {
  return {ids.data(), ids.data() + ids.size()};
}

class FilterManagerTest : public testing::Test {
 protected:
  ~FilterManagerTest() override {
    m_source = {};
    m_event = {};
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objectsBefore);
  }

  static non_blocking::Filter MakeFilter(std::uint32_t id, const zym::intrusive_ptr<Handler>& handler,
                                         bool enabled = true, std::uint32_t type = kType) {
    return {.enabled = enabled,
            .handler = zym::intrusive_ptr<non_blocking::Filter::Handler>(handler),
            .descriptor = {.type = type},
            .id = id};
  }
  zym::result_t Register(std::uint32_t id, const zym::intrusive_ptr<Handler>& handler, bool enabled = true,
                         std::uint32_t type = kType) {
    return m_source->RegisterFilter(MakeFilter(id, handler, enabled, type));
  }
  zym::result_t Delete(Ids ids) { return m_source->DeleteFilters(RangeOf(ids)); }
  zym::result_t Enable(Ids ids) { return m_source->EnableFilters(RangeOf(ids)); }
  zym::result_t Disable(Ids ids) { return m_source->DisableFilters(RangeOf(ids)); }
  zym::result_t EnableDisable(Ids toEnable, Ids toDisable) {
    return m_source->EnableDisableFilters(RangeOf(toEnable), RangeOf(toDisable));
  }
  bool IsEnabled(std::uint32_t id) {
    bool enabled = false;
    EXPECT_EQ(m_source->GetFilterStatus(id, &enabled), zym::ZYM_OK) << id;
    return enabled;
  }
  bool IsThere(std::uint32_t id) {
    bool enabled = false;
    return m_source->GetFilterStatus(id, &enabled) == zym::ZYM_OK;
  }
  void SendEvent(std::uint32_t type = kType) { m_source->OnEvent(type, m_event.get()); }

  test_support::FakeHost m_host;
  const std::int32_t m_objectsBefore = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<Source<non_blocking::Filter>> m_source =
      zym::CreateObject<Source<non_blocking::Filter>>(m_host.locator.get());
  zym::intrusive_ptr<SomeEvent> m_event = zym::CreateObject<SomeEvent>();
};

}  // namespace qor::process_manager
