// Rows of named values: as JSON lines, as a table, or as a sheet of one row.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "host/output/line_writer.h"
#include "zym/containers.h"
#include "zym/datetime.h"

namespace pmhost {

// What a column holds, and so how it is written. Numbers stand at the right in a table, all others at the
// left.
enum class Kind {
  kText,
  kYesNo,
  kNames,
  kLines,       // names; in a sheet one a line
  kNumber,      // that fits 53 bits
  kLongNumber,  // that may not: in JSON a string in decimal
  kAddress,     // in JSON as a long number; for a person hexadecimal
  kUser,        // a user id; in a sheet with the name
  kUserName,    // a user id, by the name
  kTime,        // of a record: RFC 3339; in a table to the second
  kEventTime,   // nanoseconds of CLOCK_MONOTONIC: RFC 3339; in a table the time of the day
  kObject,      // an object in JSON, and JSON alone
};

// Not known is `null` in JSON and "?" for a person. Nothing, where it is known that there is nothing, is
// `null` too, a blank in a table, and left out of a sheet.
struct NotKnown {};
struct Nothing {};
struct Time {
  zym::datetime_t value;
};
using Names = std::vector<std::string>;
struct Member {
  const char* name;
  Kind kind;
  std::uint64_t value;
};
using Members = std::vector<Member>;

// A view is into the row, or constant.
using Value = std::variant<NotKnown, Nothing, bool, std::uint64_t, Time, std::string_view,
                           std::u16string_view, std::string, zym::types::string16_t, Names, Members>;

template <class T>
Value Known(const std::optional<T>& value) {
  return value ? Value(*value) : Value(NotKnown());
}
inline Value KnownTime(std::optional<zym::datetime_t> time) {
  return time ? Value(Time{*time}) : Value(NotKnown());
}
template <class C>
Value KnownText(std::basic_string_view<C> text) {
  return text.empty() ? Value(NotKnown()) : Value(text);
}

enum class Audience {
  kBoth,
  kJson,
  kPerson,  // JSON has its facts in other columns
};

// A column as a printer sees it. The name is that of the JSON member; a sheet shows it with blanks.
struct Field {
  const char* name;
  Kind kind;
  const char* heading = "";  // in a table
  std::size_t width = 0;     // at least, in a table; the last column has no width
  Audience audience = Audience::kBoth;
};

// A field, and where its value is in a row.
template <class Row>
struct Column {
  Field field;
  std::function<Value(const Row&)> value;
};

// Columns of `part`, which is a member of a row, as columns of the row.
template <class Row, class Part>
std::vector<Column<Row>> ColumnsOf(Part Row::*part, const std::vector<Column<Part>>& columns) {
  std::vector<Column<Row>> ofRow;
  ofRow.reserve(columns.size());
  for (const Column<Part>& column : columns)
    ofRow.push_back(
        {column.field, [part, value = column.value](const Row& row) { return value(row.*part); }});
  return ofRow;
}

template <class Row>
std::vector<Column<Row>> operator+(std::vector<Column<Row>> columns, std::vector<Column<Row>> others) {
  std::ranges::move(others, std::back_inserter(columns));
  return columns;
}

enum class Layout { kJson, kTable, kSheet };

// Writes rows, field by field.
class RowPrinter {
 public:
  virtual ~RowPrinter() = default;

  virtual void PrintHeading(const std::vector<Field>&) {}
  // The columns that `value` takes in a table.
  virtual std::size_t WidthOf(const Field&, const Value&) { return 0; }
  virtual void Begin() {}
  // `before` stands in front of the value for a person.
  virtual void Add(const Field& field, const Value& value, std::string_view before) = 0;
  // False: the reader is gone.
  virtual bool End() = 0;
};
std::unique_ptr<RowPrinter> MakeRowPrinter(Layout layout, const std::vector<Field>& fields,
                                           LineWriter& writer);

// Prints rows. A table is cut to the width of the terminal. Called by one thread at a time.
template <class Row>
class Table {
 public:
  // In a table a person sees the columns `chosen`, by their names; every column that is for him when there
  // are none. JSON has all that are for it, in the order of `columns`.
  Table(Layout layout, std::vector<Column<Row>> columns, LineWriter& writer,
        const std::vector<std::string_view>& chosen = {})
      : m_columns(layout == Layout::kTable && !chosen.empty() ? Choose(columns, chosen)
                                                              : std::move(columns)) {
    const Audience other = layout == Layout::kJson ? Audience::kPerson : Audience::kJson;
    std::erase_if(m_columns, [other](const Column<Row>& column) { return column.field.audience == other; });
    m_printer = MakeRowPrinter(layout, Fields(), writer);
  }

  // Makes each column as wide as its widest value; before the heading.
  void Fit(const std::vector<Row>& rows) {
    for (Column<Row>& column : m_columns)
      for (const Row& row : rows)
        column.field.width =
            std::max(column.field.width, m_printer->WidthOf(column.field, column.value(row)));
  }
  void PrintHeading() { m_printer->PrintHeading(Fields()); }
  // `branches` stand in front of the last column. False: the reader is gone.
  bool Print(const Row& row, std::string_view branches = {}) {
    m_printer->Begin();
    for (const Column<Row>& column : m_columns)
      m_printer->Add(column.field, column.value(row), &column == &m_columns.back() ? branches : "");
    return m_printer->End();
  }
  void PrintAll(const std::vector<Row>& rows) {
    Fit(rows);
    PrintHeading();
    static_cast<void>(std::ranges::all_of(rows, [this](const Row& row) { return Print(row); }));
  }

 private:
  static std::vector<Column<Row>> Choose(const std::vector<Column<Row>>& columns,
                                         const std::vector<std::string_view>& names) {
    std::vector<Column<Row>> chosen;
    for (const std::string_view name : names)
      std::ranges::copy_if(columns, std::back_inserter(chosen),
                           [name](const Column<Row>& column) { return column.field.name == name; });
    return chosen;
  }

  [[nodiscard]] std::vector<Field> Fields() const {
    std::vector<Field> fields;
    for (const Column<Row>& column : m_columns) fields.push_back(column.field);
    return fields;
  }

  std::vector<Column<Row>> m_columns;
  std::unique_ptr<RowPrinter> m_printer;
};

}  // namespace pmhost
