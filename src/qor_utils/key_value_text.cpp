#include "qor_utils/key_value_text.h"

#include <boost/format.hpp>
#include <new>
#include <optional>

#include "qor_utils/variant_to_string.h"

namespace qor {
namespace {

constexpr std::string_view kPlainSpecials = "\n\r=\\\a\v\x1b";
constexpr std::string_view kPlainEscapes = "nr=\\ave";
static_assert(kPlainSpecials.size() == kPlainEscapes.size());

constexpr std::string_view kQuotedSpecials = "\b\f\n\r\t\"\\\a\v\x1b";
constexpr std::string_view kQuotedEscapes = "bfnrt\"\\ave";
static_assert(kQuotedSpecials.size() == kQuotedEscapes.size());

// Puts a backslash and the escape before each character of `specials`; all others go through as they are.
std::string Escape(std::string_view text, std::string_view specials, std::string_view escapes) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    if (const std::size_t at = specials.find(c); at != std::string_view::npos)
      escaped.append({'\\', escapes[at]});
    else
      escaped.push_back(c);
  }
  return escaped;
}

std::string EscapeQuoted(std::string_view text) {
  return Escape(text, kQuotedSpecials, kQuotedEscapes);
}

// Null for a value that can't be read.
std::optional<std::string> ReadValue(const NamedField& field) {
  try {
    return VariantToString(field.value);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

bool IsContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xc0U) == 0x80;
}

// Where the head ends and where the tail begins.
struct Cut {
  std::size_t headEnd;
  std::size_t tailBegin;
};

Cut FindCut(std::string_view text, const ValueLimits& limits) {
  Cut cut{std::min(limits.head, text.size()), text.size() - std::min(limits.tail, text.size())};
  // A sequence has at most three continuation bytes; a text that isn't UTF-8 is cut where it is asked to be.
  for (int i = 0; i < 3 && cut.headEnd > 0 && IsContinuation(text[cut.headEnd]); ++i) --cut.headEnd;
  for (int i = 0; i < 3 && cut.tailBegin < text.size() && IsContinuation(text[cut.tailBegin]); ++i)
    ++cut.tailBegin;
  return cut;
}

std::string ToQuotedPair(const NamedField& field, const ValueLimits& limits) {
  const std::optional<std::string> read = ReadValue(field);
  const std::string_view value = read ? *read : kCorruptedValue;
  // A head and a tail that leave nothing out are no cut.
  if (value.size() <= limits.longest || value.size() <= limits.head ||
      value.size() - limits.head <= limits.tail)
    return boost::str(boost::format("\"%1%\": \"%2%\"") % field.name % EscapeQuoted(value));
  const Cut cut = FindCut(value, limits);
  return boost::str(boost::format("\"%1%\": \"%2%...<Cut out %3% bytes>...%4%\"") % field.name %
                    EscapeQuoted(value.substr(0, cut.headEnd)) % (cut.tailBegin - cut.headEnd) %
                    EscapeQuoted(value.substr(cut.tailBegin)));
}

std::string ToPlainPair(const NamedField& field) {
  const std::optional<std::string> read = ReadValue(field);
  const std::string value =
      read ? Escape(*read, kPlainSpecials, kPlainEscapes) : std::string(kCorruptedValue);
  return boost::str(boost::format("%1%=%2%") % field.name % value);
}

}  // namespace

std::string ToPlainText(std::span<const NamedField> fields) {
  std::string text;
  for (const NamedField& field : fields) {
    if (&field != fields.data()) text += '\n';
    text += ToPlainPair(field);
  }
  return text;
}

std::string ToQuotedText(std::span<const NamedField> fields, const ValueLimits& limits) {
  std::string text;
  for (const NamedField& field : fields) {
    if (&field != fields.data()) text += ", ";
    text += ToQuotedPair(field, limits);
  }
  return text;
}

}  // namespace qor
