#include "text.h"

#include <cstdint>

namespace ambreld {

bool utf8ToUtf16(std::string_view in, std::u16string *out)
{
    std::u16string result;
    for (std::size_t i = 0; i < in.size();) {
        auto b = static_cast<std::uint8_t>(in[i]);
        std::uint32_t cp;
        int extra;
        if (b < 0x80) {
            cp = b;
            extra = 0;
        } else if ((b & 0xE0) == 0xC0) {
            cp = b & 0x1F;
            extra = 1;
        } else if ((b & 0xF0) == 0xE0) {
            cp = b & 0x0F;
            extra = 2;
        } else if ((b & 0xF8) == 0xF0) {
            cp = b & 0x07;
            extra = 3;
        } else {
            return false;
        }
        if (in.size() - i <= std::size_t(extra)) {
            return false; // truncated sequence
        }
        for (int k = 1; k <= extra; ++k) {
            auto c = static_cast<std::uint8_t>(in[i + std::size_t(k)]);
            if ((c & 0xC0) != 0x80) {
                return false;
            }
            cp = cp << 6 | (c & 0x3F);
        }
        static const std::uint32_t minimum[4] = {0, 0x80, 0x800, 0x10000};
        if (cp < minimum[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false; // overlong, out of range, or a surrogate
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            result.push_back(char16_t(0xD800 + (cp >> 10)));
            result.push_back(char16_t(0xDC00 + (cp & 0x3FF)));
        } else {
            result.push_back(char16_t(cp));
        }
        i += std::size_t(extra) + 1;
    }
    *out = std::move(result);
    return true;
}

std::string utf16ToUtf8(std::u16string_view in)
{
    std::string out;
    for (std::size_t i = 0; i < in.size(); ++i) {
        std::uint32_t cp = in[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < in.size() && in[i + 1] >= 0xDC00 && in[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD;
        }
        if (cp < 0x80) {
            out.push_back(char(cp));
        } else if (cp < 0x800) {
            out.push_back(char(0xC0 | cp >> 6));
            out.push_back(char(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(char(0xE0 | cp >> 12));
            out.push_back(char(0x80 | (cp >> 6 & 0x3F)));
            out.push_back(char(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(char(0xF0 | cp >> 18));
            out.push_back(char(0x80 | (cp >> 12 & 0x3F)));
            out.push_back(char(0x80 | (cp >> 6 & 0x3F)));
            out.push_back(char(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

} // namespace ambreld
