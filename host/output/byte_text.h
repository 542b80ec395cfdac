// Bytes that should be text and may be something else.
#pragma once

#include <string_view>

#include "zym/containers.h"

namespace pmhost {

// UTF-8 as UTF-16; a byte 0xXX that is not part of a character becomes the lone surrogate 0xdcXX, which JSON
// lines show as they show such a byte itself.
zym::types::string16_t DecodeBytes(std::string_view bytes);

}  // namespace pmhost
