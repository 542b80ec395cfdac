// Mappings that a test made up, as a reader of /proc gives them.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "support/fake_procfs_parser.h"

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

// A pid that it wasn't given can't be read.
class MapsParser : public test_support::FakeProcfsParser {
 public:
  std::map<PidType, procfs::Maps> maps;

  zym::result_t GetMaps(PidType pid, procfs::Maps& out) override {
    const auto found = maps.find(pid);
    if (found == maps.end()) return zym::ZYM_E_UNSPECIFIED;
    out = found->second;
    return zym::ZYM_OK;
  }
};

}  // namespace qor::process_manager
