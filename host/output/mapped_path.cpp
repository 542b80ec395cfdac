#include "host/output/mapped_path.h"

#include "zym/utf.h"

namespace pmhost {

std::optional<std::string> MappedPaths::Path(zym::result_t result, const zym::types::string16_t& path,
                                             std::uint64_t base) {
  std::string bytes;
  if (ZYM_SUCCEEDED(result)) {
    bytes = zym::Utf16ToUtf8(path).value_or("");
  } else {
    if (!m_maps) static_cast<void>(m_parser->GetMaps(m_pid, m_maps.emplace()));
    if (const auto found = m_maps->lower_bound(base); found != m_maps->end() && found->first == base)
      bytes = found->second->path;
  }
  return bytes.empty() ? std::nullopt : std::optional(std::move(bytes));
}

}  // namespace pmhost
