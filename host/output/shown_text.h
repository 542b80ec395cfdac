// Text for a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pmhost {

// What would move the cursor is shown as an escape, and what is not text by a mark.
void AppendShown(std::string& out, std::u16string_view text);
void AppendShown(std::string& out, std::string_view utf8);

// The columns that a terminal shows UTF-8 in: two for a wide character, none for a combining one.
std::size_t DisplayWidth(std::string_view utf8);

// To so many columns; 0: as it is.
void CutToWidth(std::string& line, std::size_t width);

}  // namespace pmhost
