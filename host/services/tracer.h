// The host's tracer: one line a record, to a file or to standard error.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "qor_common/unique_fd.h"
#include "zym/object.h"
#include "zym/tracer.h"

namespace pmhost {

// A line is "<level> <text>", written with one write(2), so that lines of several threads don't mix.
class Tracer : public zym::object::Ifaces<zym::ITracer, zym::ITraceLevelSource>, public zym::NonCopyable {
 public:
  // Levels above `ceiling` are not traced; 0 traces nothing. An empty file name is standard error. Throws
  // Failure.
  Tracer(std::uint32_t ceiling, const std::string& file);

  zym::result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override;
  void CommitRecord(void* buffer, std::uint64_t length) override;
  const std::uint32_t* GetLevelPtr() override { return &m_ceiling; }

 private:
  const std::uint32_t m_ceiling;
  qor::UniqueFd m_file;  // empty: standard error
};

}  // namespace pmhost
