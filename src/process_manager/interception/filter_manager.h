// Table of filters, the base of every event source. It decides who gets an event, and when the source must
// run: while at least one filter is enabled and has a handler.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "process_manager/interception/filter.h"
#include "zym/containers.h"
#include "zym/exception_to_result.h"
#include "zym/service_provider.h"
#include "zym/trace.h"

namespace qor::process_manager {

// Any thread may call any operation. The lock is never held during Start, Stop or a handler. Removing,
// disabling and detaching return only when no handler of the filters is running; a handler that does that to
// its own filter waits for itself.
template <class Filter>
class FilterManager : public zym::TracerProvider {
 public:
  using FilterIds = zym::types::range_t<unsigned int*>;
  using Handler = typename Filter::Handler;

  // Starts and stops the source; called by several threads, which the source serialises. A start of a source
  // that runs and a stop of one that doesn't are harmless, and are made.
  virtual zym::result_t Start() = 0;
  virtual zym::result_t Stop() = 0;

  // When starting or stopping the source fails, its code is returned and the filters stay as changed.
  zym::result_t RegisterFilter(Filter&& filter) {
    ZYM_TRACE(GetTracer(), zym::trace::kCall, __func__ << "() id: " << filter.id);
    {
      const std::scoped_lock lock(m_mutex);
      filter.inUse = 0;
      m_filters.push_back(std::move(filter));
    }
    return StartIfActive();
  }

  zym::result_t EnableFilters(FilterIds ids) {
    ZYM_TRACE(GetTracer(), zym::trace::kCall, __func__ << "() ");
    {
      const std::scoped_lock lock(m_mutex);
      for (Filter& filter : m_filters)
        if (IsListed(filter, ids)) filter.enabled = true;
    }
    return StartIfActive();
  }

  zym::result_t DisableFilters(FilterIds ids) {
    ZYM_TRACE(GetTracer(), zym::trace::kCall, __func__ << "() ");
    {
      std::unique_lock lock(m_mutex);
      for (Filter& filter : m_filters)
        if (IsListed(filter, ids)) filter.enabled = false;
      WaitUntilUnused(lock, ids);
    }
    return StopIfInactive();
  }

  zym::result_t EnableDisableFilters(FilterIds filtersToEnable, FilterIds filtersToDisable) {
    ZYM_CHECK_RESULT(GetTracer(), EnableFilters(filtersToEnable));
    ZYM_CHECK_RESULT(GetTracer(), DisableFilters(filtersToDisable));
    return zym::ZYM_OK;
  }

  // Also with ids that this table doesn't hold: a table without an active filter then calls Stop. That is
  // meant, and harmless. Throws std::bad_alloc with every filter as it was.
  zym::result_t DeleteFilters(FilterIds ids) {
    ZYM_TRACE(GetTracer(), zym::trace::kCall, __func__ << "() ");
    std::vector<zym::intrusive_ptr<Handler>> dropped;  // released with no lock held
    {
      std::unique_lock lock(m_mutex);
      dropped.reserve(m_filters.size());
      for (Filter& filter : m_filters)
        if (IsListed(filter, ids)) dropped.push_back(std::move(filter.handler));
      WaitUntilUnused(lock, ids);
      std::erase_if(m_filters, [&](const Filter& filter) { return IsListed(filter, ids); });
    }
    return StopIfInactive();
  }

  // A null handler clears it. An unknown id is no error.
  zym::result_t AttachHandler(std::uint32_t id,
                              Handler* handler) requires std::is_same_v<Filter, non_blocking::Filter> {
    ZYM_TRACE(GetTracer(), zym::trace::kCall, __func__ << "() id: " << id);
    zym::intrusive_ptr<Handler> other(handler);  // afterwards the old one, released with no lock held
    {
      const std::scoped_lock lock(m_mutex);
      if (Filter* const filter = Find(id); filter != nullptr) std::swap(filter->handler, other);
    }
    return StartIfActive();
  }

  zym::result_t DetachHandler(std::uint32_t id) requires std::is_same_v<Filter, non_blocking::Filter> {
    ZYM_TRACE(GetTracer(), zym::trace::kCall, __func__ << "() id: " << id);
    zym::intrusive_ptr<Handler> dropped;
    {
      std::unique_lock lock(m_mutex);
      if (Filter* const filter = Find(id); filter != nullptr) std::swap(filter->handler, dropped);
      WaitUntilUnused(lock, {.first = &id, .last = &id + 1});
    }
    return StopIfInactive();
  }

  // ZYM_E_NOT_FOUND: this table doesn't hold the id.
  zym::result_t GetFilterStatus(std::uint32_t id, bool* enabled) {
    const std::scoped_lock lock(m_mutex);
    const Filter* const filter = Find(id);
    if (filter == nullptr) return zym::ZYM_E_NOT_FOUND;
    *enabled = filter->enabled;
    return zym::ZYM_OK;
  }

  // Calls each active filter of this type once, in the order of the table. A blocking table passes the
  // event's control behind the id. An exception of a handler is traced, and the walk goes on. A filter that
  // is added during the walk may be served by it; one that is removed isn't called again.
  template <class Event, class... Control>
  void OnEvent(std::uint32_t type, Event* event, Control*... control) {
    std::vector<std::uint32_t> called;
    std::size_t start = 0;
    while (std::optional<Turn> turn = TakeTurn(type, start, called)) {
      Call(*turn->handler, event, turn->id, control...);
      EndTurn(*turn);
      start = turn->position + 1;
    }
  }

 protected:
  template <class TracerSource>
  FilterManager(TracerSource&& tracerSource, std::string_view name)
      : TracerProvider(std::forward<TracerSource>(tracerSource), name) {}
  ~FilterManager() = default;

 private:
  // One call of one handler.
  struct Turn {
    zym::intrusive_ptr<Handler> handler;
    std::uint32_t id;
    std::size_t position;  // where the filter stood when the turn was taken
  };

  static bool IsActive(const Filter& filter) { return filter.enabled && filter.handler; }

  static bool IsListed(const Filter& filter, FilterIds ids) {
    return std::find(ids.begin(), ids.end(), filter.id) != ids.end();
  }

  Filter* Find(std::uint32_t id) {
    const auto found = std::ranges::find(m_filters, id, &Filter::id);
    return found != m_filters.end() ? &*found : nullptr;
  }

  bool HasActive() {
    const std::scoped_lock lock(m_mutex);
    return std::ranges::any_of(m_filters, IsActive);
  }

  zym::result_t StartIfActive() {
    if (!HasActive()) return zym::ZYM_OK;
    ZYM_CHECK_RESULT(GetTracer(), Start(), "Cannot start interceptor");
    return zym::ZYM_OK;
  }

  zym::result_t StopIfInactive() {
    if (HasActive()) return zym::ZYM_OK;
    ZYM_CHECK_RESULT(GetTracer(), Stop(), "Cannot stop interceptor");
    return zym::ZYM_OK;
  }

  // The table may move while the lock is given up, so each look is a new one.
  void WaitUntilUnused(std::unique_lock<std::mutex>& lock, FilterIds ids) {
    m_unused.wait(lock, [&] {
      return std::ranges::none_of(
          m_filters, [&](const Filter& filter) { return IsListed(filter, ids) && filter.inUse > 0; });
    });
  }

  // The next filter from `start` on, around the table, that is to get an event of this type.
  std::optional<Turn> TakeTurn(std::uint32_t type, std::size_t start, std::vector<std::uint32_t>& called) {
    const std::scoped_lock lock(m_mutex);
    const std::size_t count = m_filters.size();
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t position = (start + i) % count;
      Filter& filter = m_filters[position];
      if (!IsActive(filter) || filter.descriptor.type != type) continue;
      if (std::ranges::find(called, filter.id) != called.end()) continue;
      called.push_back(filter.id);
      ++filter.inUse;
      return Turn{filter.handler, filter.id, position};
    }
    return std::nullopt;
  }

  void EndTurn(const Turn& turn) {
    const std::scoped_lock lock(m_mutex);
    const std::size_t count = m_filters.size();
    for (std::size_t i = 0; i < count; ++i) {
      Filter& filter = m_filters[(turn.position + i) % count];
      if (filter.id != turn.id) continue;
      if (--filter.inUse == 0) m_unused.notify_all();
      return;
    }
  }

  template <class Event, class... Control>
  void Call(Handler& handler, Event* event, std::uint32_t id, Control*... control) noexcept {
    try {
      handler.OnEvent(event, id, control...);
    } catch (...) {
      zym::ExceptionInFunctionToResult(GetTracer(), "OnEvent");  // the handler's operation: meant
    }
  }

  std::mutex m_mutex;  // guards m_filters and every field of a filter
  std::vector<Filter> m_filters;
  std::condition_variable m_unused;  // a filter's inUse came back to 0; with m_mutex
};

}  // namespace qor::process_manager
