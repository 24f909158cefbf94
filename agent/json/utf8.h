// UTF-8 (RFC 3629), byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vnagent {

// How many bytes the character at the front of `text` has: 1 to 4; 0 where the bytes are no UTF-8
// (overlong forms, surrogates and what is beyond U+10FFFF included) or `text` is empty.
size_t utf8Length(std::string_view text);

// The text as it may be written to a terminal: control characters (U+0000 to U+001F and U+007F to
// U+009F) as \u00XX, bytes that are no UTF-8 as \xXX, all else as it is.
std::string escapeControls(std::string_view text);

}  // namespace vnagent
