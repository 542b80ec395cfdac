// Paths of mappings.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/output/table.h"
#include "process_manager/proc_parser.h"
#include "zym/containers.h"

namespace pmhost {

// The bytes of the path that the module returned as UTF-16. A path that is not text can't be returned so: its
// bytes are those of the mapping of `pid` that begins at `base`.
class MappedPaths {
 public:
  MappedPaths(zym::intrusive_ptr<qor::procfs::IParser> parser, std::uint32_t pid)
      : m_parser(std::move(parser)), m_pid(pid) {}

  // Absent: the mapping has no file.
  std::optional<std::string> Path(zym::result_t result, const zym::types::string16_t& path,
                                  std::uint64_t base);

 private:
  const zym::intrusive_ptr<qor::procfs::IParser> m_parser;
  const std::uint32_t m_pid;
  std::optional<qor::procfs::Maps> m_maps;  // read at the first need
};

// Memory without a file has no path: that is known.
inline Value MappedPath(const std::optional<std::string>& path) {
  return path ? Value(std::string_view(*path)) : Value(Nothing());
}

}  // namespace pmhost
