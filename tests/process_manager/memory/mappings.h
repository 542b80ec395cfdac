// Mappings that a test made up, as a reader of /proc returns them.
#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>

#include "process_manager/proc_parser.h"

namespace qor::process_manager {

inline procfs::MapsEntry Mapping(std::uint64_t begin, std::uint64_t end, std::uint32_t protection,
                                 std::string path = {}) {
  procfs::MapsEntry entry;
  entry.begin = begin;
  entry.end = end;
  entry.protection = protection;
  entry.path = std::move(path);
  return entry;
}

inline procfs::Maps MapsOf(std::initializer_list<procfs::MapsEntry> entries) {
  procfs::Maps maps;
  for (const procfs::MapsEntry& entry : entries)
    maps.emplace(entry.begin, std::make_shared<procfs::MapsEntry>(entry));
  return maps;
}

}  // namespace qor::process_manager
