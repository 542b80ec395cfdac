// The tracer interfaces: where trace records go, and what decides which of them are made.
#pragma once

#include <cstdint>
#include <string>

#include "zym/containers.h"
#include "zym/iobject.h"

namespace zym {

// The host's tracer. Any thread; a record belongs to one thread and one call.
struct ITracer : IObject {
  static constexpr iid_t kIid = 0x6ef3329b;

  // With `*buffer` null: opens a record of `level` with room for `size` bytes. A result other than 0, or a
  // buffer that stays null, means that nothing is traced at this level.
  // With `*buffer` an open record: makes it grow to `size` bytes, keeping its text; the level is 1000 then,
  // and `*buffer` may change. On failure the record stays open as it was.
  virtual result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) = 0;

  // Takes an open record with `length` bytes of UTF-8 text, which has no terminator and no line end. In it
  // U+FFFD stands for each byte of a file's name or of another text that is not UTF-8.
  virtual void CommitRecord(void* buffer, std::uint64_t length) = 0;

 protected:
  ~ITracer() = default;
};

namespace trace {

// A tracer that puts a prefix before each record.
struct IPrefixTracer : IObject {
  static constexpr iid_t kIid = 0xce153b3b;

  virtual types::string_t GetPrefix() = 0;
  // The tracer behind it, with no reference added; null if there is none.
  virtual ITracer* GetTracer() = 0;

 protected:
  ~IPrefixTracer() = default;
};

// The levels. A smaller number is more important.
inline constexpr std::uint32_t kFailure = 300;
inline constexpr std::uint32_t kWarning = 500;
inline constexpr std::uint32_t kNotice = 700;
inline constexpr std::uint32_t kCall = 800;
inline constexpr std::uint32_t kDefaultCeiling = 1000;  // and the level of a call that grows a record

}  // namespace trace

// The host's source of the level ceiling, found by QueryInterface on its tracer. Every class holds to it.
struct ITraceLevelSource : IObject {
  static constexpr iid_t kIid = 0x9397b017;

  // The current ceiling, read anew at each record: no record above it is opened. The pointer is valid while
  // the tracer lives.
  virtual const std::uint32_t* GetLevelPtr() = 0;

 protected:
  ~ITraceLevelSource() = default;
};

// Says which kinds of text may go to the trace.
struct ITracerCategoryFilter : IObject {
  static constexpr iid_t kIid = 0x2b6ab0fb;
  static constexpr std::uint32_t kSensitive = 1;  // command lines, environments, console input

  // 0: text of this category may be traced. Anything else: it may not.
  virtual result_t Check(std::uint32_t category) = 0;

 protected:
  ~ITracerCategoryFilter() = default;
};

// What stands in the trace in place of text that the filter holds back.
inline constexpr std::string_view kSkippedByPrivacyPolicy = "skipped by privacy policy";

}  // namespace zym
