// UTF-8 (Linux names) to UTF-16 (the driver's names) and back.
#pragma once

#include <string>
#include <string_view>

namespace ambreld {

// False for input that is not well-formed UTF-8 (or encodes a surrogate).
bool utf8ToUtf16(std::string_view in, std::u16string *out);
// Unpaired surrogates become U+FFFD.
std::string utf16ToUtf8(std::u16string_view in);

} // namespace ambreld
