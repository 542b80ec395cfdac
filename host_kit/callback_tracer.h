// A tracer that passes each record to a function of the host.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "zym/object.h"
#include "zym/tracer.h"

namespace host_kit {

// Any thread.
class CallbackTracer : public zym::object::Ifaces<zym::ITracer, zym::ITraceLevelSource>,
                       public zym::NonCopyable {
 public:
  // Gets the level (zym::trace) and the text of a record, in UTF-8 without a line end; the text is valid
  // during the call. Called on the thread that traces, so several calls may run at once, and an object of the
  // module may be in the middle of an operation: it calls nothing of the module. An exception ends the
  // process.
  using Callback = std::function<void(std::uint32_t level, std::string_view text)>;

  // Records above `ceiling` are not made. At 0 no record is made, and `callback` may be empty.
  CallbackTracer(std::uint32_t ceiling, Callback callback);

  zym::result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override;
  void CommitRecord(void* buffer, std::uint64_t length) noexcept override;
  const std::uint32_t* GetLevelPtr() override { return &m_ceiling; }

 private:
  const std::uint32_t m_ceiling;
  const Callback m_callback;
};

}  // namespace host_kit
