// Rows as JSON lines, as a table and as a sheet.
#include "host/output/table.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "host/output/shown_text.h"
#include "qor_common/unique_fd.h"

namespace pmhost {
namespace {

struct Row {
  std::optional<std::uint64_t> number;
  std::string text;
};

std::vector<Column<Row>> Columns() {
  return {
      {{"text_name", Kind::kText, "TEXT", 6},
       [](const Row& row) { return KnownText(std::string_view(row.text)); }},
      {{"number", Kind::kNumber, "NUMBER", 6}, [](const Row& row) { return Known(row.number); }},
      {{"long", Kind::kLongNumber, "LONG", 5}, [](const Row& row) { return Known(row.number); }},
      {{"address", Kind::kAddress, "ADDRESS", 18}, [](const Row& row) { return Known(row.number); }},
      {{"json", Kind::kNumber, "JSON", 4, Audience::kJson}, [](const Row&) { return Value(1U); }},
      {{"person", Kind::kText, "PERSON", 0, Audience::kPerson},
       [](const Row& row) { return Value(row.text); }},
  };
}

// What is written through a writer.
template <class Write>
std::string Written(Write write) {
  int ends[2];
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const qor::UniqueFd in(ends[0]);
  {
    const qor::UniqueFd out(ends[1]);
    LineWriter writer(out.Get());
    write(writer);
    writer.Finish();
  }
  std::string text(65536, '\0');
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::read(in.Get(), text.data(), text.size()))));
  return text;
}

template <class R>
std::string Printed(Layout layout, const std::vector<Column<R>>& columns, const std::vector<R>& rows,
                    const std::vector<std::string_view>& chosen = {}) {
  return Written([&](LineWriter& writer) { Table<R>(layout, columns, writer, chosen).PrintAll(rows); });
}

const std::vector<Row> kRows = {{16, "one"}, {std::nullopt, ""}};

TEST(Table, JsonHasEachMemberInItsOrderAndNullForWhatIsNotKnown) {
  EXPECT_EQ(Printed(Layout::kJson, Columns(), kRows),
            R"({"text_name":"one","number":16,"long":"16","address":"16","json":1})"
            "\n"
            R"({"text_name":null,"number":null,"long":null,"address":null,"json":1})"
            "\n");
}

TEST(Table, NumbersStandAtTheRightAndTextsAtTheLeftBelowTheirHeadings) {
  EXPECT_EQ(Printed(Layout::kTable, Columns(), kRows),
            "TEXT    NUMBER  LONG  ADDRESS             PERSON\n"
            "one         16    16  0x0000000000000010  one\n"
            "?            ?     ?  ?\n");
}

TEST(Table, AColumnIsAsWideAsItsWidestValue) {
  EXPECT_EQ(Printed(Layout::kTable, Columns(), {{1'234'567'890, "long text"}, {1, "\u4e2d\u6587"}},
                    {"text_name", "number", "person"}),
            "TEXT           NUMBER  PERSON\n"
            "long text  1234567890  long text\n"
            "\u4e2d\u6587                1  \u4e2d\u6587\n")
      << "two columns for a wide character";
}

TEST(Table, APersonSeesTheChosenColumnsInTheOrderOfTheChoiceAndJsonAllOfThem) {
  EXPECT_EQ(Printed(Layout::kTable, Columns(), {{7, "one"}}, {"number", "text_name"}),
            "NUMBER  TEXT\n"
            "     7  one\n");
  EXPECT_EQ(Printed(Layout::kJson, Columns(), {{7, "one"}}, {"number"}),
            Printed(Layout::kJson, Columns(), {{7, "one"}}));
}

TEST(Table, BranchesStandInFrontOfTheLastColumn) {
  EXPECT_EQ(Written([](LineWriter& writer) {
              Table<Row> table(Layout::kTable, Columns(), writer, {"number", "person"});
              table.Print({7, "one"}, "└─ ");
            }),
            "     7  └─ one\n");
}

TEST(Table, WhatWouldMoveTheCursorIsShown) {
  EXPECT_EQ(Printed(Layout::kTable, Columns(), {{7, "a\x1b[2J\n"}}, {"text_name"}),
            "TEXT\n"
            "a\\x1b[2J\\x0a\n");
}

// A column of each kind of value.
std::vector<Column<int>> ColumnsOfValues() {
  constexpr zym::datetime_t kMoment =
      zym::datetime::kUnixEpoch + 1'700'000'000 * zym::datetime::kUnitsPerSecond;
  return {
      {{"yes", Kind::kYesNo, "YES", 3}, [](int) { return Value(true); }},
      {{"time", Kind::kTime, "TIME", 19}, [](int) { return Value(Time{kMoment}); }},
      {{"user", Kind::kUser, "USER", 4}, [](int) { return Value(4'000'000'000U); }},
      {{"nothing", Kind::kText, "NOTHING", 7}, [](int) { return Value(Nothing()); }},
      {{"names", Kind::kNames, "NAMES", 5},
       [](int) {
         return Value(Names{"a", "b"});
       }},
      {{"lines", Kind::kLines, "LINES", 5},
       [](int) {
         return Value(Names{"c=1", "d=2"});
       }},
      {{"no_names", Kind::kNames, "NO", 0}, [](int) { return Value(Names()); }},
      {{"object", Kind::kObject, "", 0, Audience::kJson},
       [](int) {
         return Value(Members{{"short", Kind::kNumber, 1}, {"long", Kind::kLongNumber, 2}});
       }},
  };
}

TEST(Table, JsonOfEachKindOfValue) {
  EXPECT_EQ(Printed(Layout::kJson, ColumnsOfValues(), {0}),
            R"({"yes":true,"time":"2023-11-14T22:13:20.000000000Z","user":4000000000,"nothing":null,)"
            R"("names":["a","b"],"lines":["c=1","d=2"],"no_names":[],"object":{"short":1,"long":"2"}})"
            "\n");
}

TEST(Table, ASheetHasANameAndAValueALine) {
  EXPECT_EQ(Printed(Layout::kSheet, ColumnsOfValues(), {0}),
            "yes       yes\n"
            "time      2023-11-14T22:13:20.000000000Z\n"
            "user      4000000000 (4000000000)\n"
            "names     a, b\n"
            "lines     c=1\n"
            "          d=2\n"
            "no names  none\n")
      << "and no line where there is nothing";
}

TEST(Table, ATableShowsTimesToTheSecond) {
  EXPECT_EQ(Printed(Layout::kTable, ColumnsOfValues(), {0}, {"yes", "time", "user", "nothing", "names"}),
            "YES  TIME                       USER  NOTHING  NAMES\n"
            "yes  2023-11-14 22:13:20  4000000000           a, b\n");
}

TEST(Table, AReaderThatIsGoneEndsIt) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[0]);
  const qor::UniqueFd out(ends[1]);
  LineWriter writer(out.Get());
  Table<Row> table(Layout::kJson, Columns(), writer);
  bool written = true;
  for (int i = 0; i < 100'000 && written; ++i) written = table.Print(kRows.front());
  EXPECT_FALSE(written);
}

// --- widths ------------------------------------------------------------------------------------------------

TEST(ShownText, WidthsAreThoseOfATerminal) {
  EXPECT_EQ(DisplayWidth(""), 0U);
  EXPECT_EQ(DisplayWidth("plain"), 5U);
  EXPECT_EQ(DisplayWidth("\u00fc\u20ac"), 2U);
  EXPECT_EQ(DisplayWidth("\u4e2d\U0001f600"), 4U) << "wide characters";
  EXPECT_EQ(DisplayWidth("a\u0301"), 1U) << "a combining one";
}

TEST(ShownText, ALineIsCutBeforeTheCharacterThatGoesBeyondTheWidth) {
  const auto cut = [](std::string line, std::size_t width) {
    CutToWidth(line, width);
    return line;
  };
  EXPECT_EQ(cut("plain", 0), "plain");
  EXPECT_EQ(cut("plain", 5), "plain");
  EXPECT_EQ(cut("plain", 4), "plai");
  EXPECT_EQ(cut("a\u4e2d\u6587", 4), "a\u4e2d") << "half a character isn't shown";
  EXPECT_EQ(cut("a\u0301bc", 2), "a\u0301b") << "a mark stays with its letter";
}

}  // namespace
}  // namespace pmhost
