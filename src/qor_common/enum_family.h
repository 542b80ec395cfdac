// The two-way table of one enumeration: value to name and name to value.
#pragma once

#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index_container.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

namespace qor {

// Never changes once it is built: any thread, no lock.
class EnumFamily {
 public:
  struct Row {
    std::uint32_t value;
    std::string_view name;  // a literal
  };

  // `name` and `typeName` stand in the messages of the two lookups. Of rows with one value the first gives
  // its name, and of rows with one name the first gives its value.
  EnumFamily(std::string_view name, std::string_view typeName, std::initializer_list<Row> rows);

  // Throws std::runtime_error, "EnumToString, invalid '<name>' enum value: " and the value in decimal.
  [[nodiscard]] std::string NameOf(std::uint32_t value) const;

  // Compares exactly, with case. Throws std::runtime_error, "There is no such '<typeName>' value: " and the
  // text.
  [[nodiscard]] std::uint32_t ValueOf(std::string_view text) const;

 private:
  struct Entry {
    std::uint32_t value;
    std::string_view name;
    std::size_t position;  // in the list of rows
  };
  // Not unique, so that a row whose name is taken is still found by its value, and the other way round.
  using Entries = boost::multi_index_container<
      Entry,
      boost::multi_index::indexed_by<boost::multi_index::ordered_non_unique<
                                         boost::multi_index::member<Entry, std::uint32_t, &Entry::value>>,
                                     boost::multi_index::hashed_non_unique<
                                         boost::multi_index::member<Entry, std::string_view, &Entry::name>,
                                         std::hash<std::string_view>>>>;

  std::string m_name;
  std::string m_typeName;
  Entries m_entries;
};

}  // namespace qor
