#include "qor_common/enum_family.h"

#include <algorithm>
#include <stdexcept>

namespace qor {

EnumFamily::EnumFamily(std::string_view name, std::string_view typeName, std::initializer_list<Row> rows)
    : m_name(name), m_typeName(typeName) {
  for (const Row& row : rows) m_entries.insert({row.value, row.name, m_entries.size()});
}

std::string EnumFamily::NameOf(std::uint32_t value) const {
  const auto& byValue = m_entries.get<0>();
  // The first of equal ones in the order of the rows: an ordered index inserts behind its equals.
  const auto found = byValue.lower_bound(value);
  if (found == byValue.end() || found->value != value)
    throw std::runtime_error("EnumToString, invalid '" + m_name + "' enum value: " + std::to_string(value));
  return std::string(found->name);
}

std::uint32_t EnumFamily::ValueOf(std::string_view text) const {
  const auto [first, last] = m_entries.get<1>().equal_range(text);
  if (first == last)
    throw std::runtime_error("There is no such '" + m_typeName + "' value: " + std::string(text));
  return std::min_element(first, last, [](const Entry& a, const Entry& b) { return a.position < b.position; })
      ->value;
}

}  // namespace qor
