#include "host/output/table.h"

#include <cstdio>

#include "host/output/json.h"
#include "host/output/shown_text.h"
#include "host/output/time_text.h"
#include "host/output/user_names.h"

namespace pmhost {
namespace {

template <class... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;  // clang 14 doesn't deduce it by itself

// --- JSON --------------------------------------------------------------------------------------------------

class JsonRows final : public RowPrinter {
 public:
  explicit JsonRows(LineWriter& writer) : m_writer(writer) {}

  void Begin() override { m_json.Begin(); }

  void Add(const Field& field, const Value& value, std::string_view) override {
    const char* const name = field.name;
    std::visit(Overloaded{
                   [&](NotKnown) { m_json.Null(name); },
                   [&](Nothing) { m_json.Null(name); },
                   [&](bool yes) { m_json.Boolean(name, yes); },
                   [&](std::uint64_t number) { Number(name, field.kind, number); },
                   [&](Time time) { m_json.Text(name, m_time.FromDatetime(time.value)); },
                   [&](std::string_view text) { m_json.Text(name, text); },
                   [&](std::u16string_view text) { m_json.Text(name, std::optional(text)); },
                   [&](const std::string& text) { m_json.Text(name, std::string_view(text)); },
                   [&](const zym::types::string16_t& text) {
                     m_json.Text(name, std::optional(std::u16string_view(text)));
                   },
                   [&](const Names& names) {
                     m_json.BeginList(name);
                     for (const std::string& item : names) m_json.Item(item);
                     m_json.EndList();
                   },
                   [&](const Members& members) {
                     m_json.BeginObject(name);
                     for (const Member& member : members) Number(member.name, member.kind, member.value);
                     m_json.EndObject();
                   },
               },
               value);
  }

  bool End() override { return m_writer.WriteLine(m_json.End()); }

 private:
  void Number(const char* name, Kind kind, std::uint64_t number) {
    if (kind == Kind::kEventTime)
      m_json.Text(name, m_time.FromMonotonic(number));
    else if (kind == Kind::kLongNumber || kind == Kind::kAddress)
      m_json.LongNumber(name, number);
    else
      m_json.Number(name, number);
  }

  LineWriter& m_writer;
  JsonLine m_json;
  TimeText m_time;
};

// --- for a person ------------------------------------------------------------------------------------------

constexpr const char* kNotKnown = "?";
constexpr const char* kNone = "none";

// Values as text for a terminal.
class PersonText {
 public:
  explicit PersonText(Layout layout) : m_layout(layout) {}

  void Append(std::string& out, Kind kind, const Value& value) {
    std::visit(Overloaded{
                   [&](NotKnown) { out += kNotKnown; },
                   [](Nothing) {},
                   [&](bool yes) { out += yes ? "yes" : "no"; },
                   [&](std::uint64_t number) { Number(out, kind, number); },
                   [&](Time time) { out += ShortUnlessSheet(m_time.FromDatetime(time.value)); },
                   [&](std::string_view text) { AppendShown(out, text); },
                   [&](std::u16string_view text) { AppendShown(out, text); },
                   [&](const std::string& text) { AppendShown(out, std::string_view(text)); },
                   [&](const zym::types::string16_t& text) { AppendShown(out, std::u16string_view(text)); },
                   [&](const Names& names) { List(out, names); },
                   [](const Members&) {},
               },
               value);
  }

 private:
  void Number(std::string& out, Kind kind, std::uint64_t number) {
    char text[24];
    switch (kind) {
      case Kind::kEventTime:
        out += m_time.FromMonotonic(number).substr(kTimeOfDay, kToMicroseconds);
        return;
      case Kind::kAddress:
        std::snprintf(text, sizeof(text), "0x%016lx", number);
        out += text;
        return;
      case Kind::kUserName:
        AppendUserName(out, number);
        return;
      case Kind::kUser:
        out += std::to_string(number);
        if (m_layout != Layout::kSheet) return;
        out += " (";
        AppendUserName(out, number);
        out += ')';
        return;
      default:
        out += std::to_string(number);
    }
  }

  void AppendUserName(std::string& out, std::uint64_t id) {
    AppendShown(out, std::string_view(m_names.NameOf(static_cast<std::uint32_t>(id))));
  }

  // "2026-03-01 08:00:00"
  std::string ShortUnlessSheet(std::string_view rfc3339) const {
    if (m_layout == Layout::kSheet) return std::string(rfc3339);
    std::string text(rfc3339.substr(0, kToSeconds));
    text[kTimeOfDay - 1] = ' ';
    return text;
  }

  static void List(std::string& out, const Names& names) {
    if (names.empty()) out += kNone;
    const char* separator = "";
    for (const std::string& name : names) {
      out += separator;
      AppendShown(out, std::string_view(name));
      separator = ", ";
    }
  }

  static constexpr std::size_t kTimeOfDay = 11;  // where it begins in RFC 3339
  static constexpr std::size_t kToSeconds = 19;
  static constexpr std::size_t kToMicroseconds = 15;  // of the time of the day

  const Layout m_layout;
  TimeText m_time;
  UserNames m_names;
};

bool StandsRight(Kind kind) {
  return kind == Kind::kNumber || kind == Kind::kLongNumber || kind == Kind::kUser;
}

class TableRows final : public RowPrinter {
 public:
  explicit TableRows(LineWriter& writer) : m_writer(writer), m_width(writer.Width()) {}

  void PrintHeading(const std::vector<Field>& fields) override {
    Begin();
    for (const Field& field : fields) AddCell(field, field.heading);
    End();
  }

  std::size_t WidthOf(const Field& field, const Value& value) override {
    m_cell.clear();
    m_text.Append(m_cell, field.kind, value);
    return DisplayWidth(m_cell);
  }

  void Begin() override {
    m_line.clear();
    m_blanks = 0;
    m_first = true;
  }

  void Add(const Field& field, const Value& value, std::string_view before) override {
    m_cell = before;
    m_text.Append(m_cell, field.kind, value);
    AddCell(field, m_cell);
  }

  bool End() override {
    CutToWidth(m_line, m_width);
    return m_writer.WriteLine(m_line);
  }

 private:
  // Two blanks between columns; one between numbers, which have room at their left. Blanks wait for a text,
  // so that no line ends in them.
  void AddCell(const Field& field, std::string_view text) {
    const bool right = StandsRight(field.kind);
    if (!m_first) m_blanks += right && m_wasRight ? 1 : 2;
    const std::size_t width = DisplayWidth(text);
    const std::size_t padding = width < field.width ? field.width - width : 0;
    if (right) m_blanks += padding;
    if (!text.empty()) {
      m_line.append(std::exchange(m_blanks, 0), ' ');
      m_line += text;
    }
    if (!right) m_blanks += padding;
    m_wasRight = right;
    m_first = false;
  }

  LineWriter& m_writer;
  const std::size_t m_width;
  PersonText m_text{Layout::kTable};
  std::string m_line;
  std::string m_cell;
  std::size_t m_blanks = 0;  // in front of the next text
  bool m_wasRight = false;   // the last cell
  bool m_first = true;
};

// One name and one value a line.
class Sheet final : public RowPrinter {
 public:
  Sheet(const std::vector<Field>& fields, LineWriter& writer) : m_writer(writer), m_width(writer.Width()) {
    for (const Field& field : fields)
      m_nameWidth = std::max(m_nameWidth, std::string_view(field.name).size());
  }

  void Add(const Field& field, const Value& value, std::string_view before) override {
    if (std::holds_alternative<Nothing>(value)) return;
    const Names* const names = std::get_if<Names>(&value);
    if (field.kind != Kind::kLines || names == nullptr || names->empty()) {
      BeginLine(field.name);
      m_line += before;
      m_text.Append(m_line, field.kind, value);
      return WriteLine();
    }
    const char* name = field.name;
    for (const std::string& item : *names) {
      BeginLine(name);
      AppendShown(m_line, std::string_view(item));
      WriteLine();
      name = "";
    }
  }

  bool End() override { return m_written; }

 private:
  void BeginLine(std::string_view name) {
    m_line = name;
    std::ranges::replace(m_line, '_', ' ');
    m_line.append(m_nameWidth + 2 - name.size(), ' ');
  }
  void WriteLine() {
    CutToWidth(m_line, m_width);
    m_written = m_writer.WriteLine(m_line);
  }

  LineWriter& m_writer;
  const std::size_t m_width;
  std::size_t m_nameWidth = 0;
  PersonText m_text{Layout::kSheet};
  std::string m_line;
  bool m_written = true;
};

}  // namespace

std::unique_ptr<RowPrinter> MakeRowPrinter(Layout layout, const std::vector<Field>& fields,
                                           LineWriter& writer) {
  switch (layout) {
    case Layout::kJson:
      return std::make_unique<JsonRows>(writer);
    case Layout::kTable:
      return std::make_unique<TableRows>(writer);
    case Layout::kSheet:
      break;
  }
  return std::make_unique<Sheet>(fields, writer);
}

}  // namespace pmhost
