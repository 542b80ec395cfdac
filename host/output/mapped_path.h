// Paths of mappings, as text for JSON lines and for columns.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "process_manager/proc_parser.h"
#include "zym/containers.h"

namespace pmhost {

// The bytes of the path that the module gave as UTF-16. A path that is no text can't be given so: its bytes
// are those of the mapping of `pid` that begins at `base`.
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

}  // namespace pmhost
