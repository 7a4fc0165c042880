// The kernel's printf dialect, shared by DbgPrint (narrow format, UTF-8 log)
// and the ntstrsafe printers (wide format, UTF-16 output).
//
// The sizes are Windows', not the host's: "%ld" reads a 32-bit LONG because
// long is 32 bits on Windows, and only "ll", "I64", "I", "z", "t" and "j"
// read 64 bits. A conversion the kernel does not know is copied to the output
// as it stands, arguments untouched; "%n" writes nothing, as the kernel's
// formatter refuses it.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "hk/ntdef.h"
#include "internal.h"

namespace hostkernel::detail {

namespace {

enum class Size { Default, Char, Short, Long, LongLong, Wide };

struct Conversion {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    int width = 0;
    int precision = -1; // none
    Size size = Size::Default;
};

// The arguments come in the Windows convention (DbgPrint and the printers
// are ms_abi variadic routines). g++ cannot deduce __builtin_ms_va_list as a
// template argument, so the list travels in a struct of its own.
struct Args {
    __builtin_ms_va_list list;
};

template <typename Ch> bool isDigit(Ch c)
{
    return c >= Ch('0') && c <= Ch('9');
}

void pad(FormatSink &sink, char fill, int count)
{
    static const char zeros[] = "0000000000000000000000000000000000000000";
    static const char blanks[] = "                                        ";
    const char *run = fill == '0' ? zeros : blanks;
    while (count > 0) {
        int n = count < 40 ? count : 40;
        sink.narrow(run, size_t(n));
        count -= n;
    }
}

void integer(FormatSink &sink, const Conversion &conv, char type, bool negative, unsigned long long magnitude)
{
    int base = (type == 'o') ? 8 : (type == 'x' || type == 'X' || type == 'p') ? 16 : 10;
    const char *digitsOf = (type == 'X' || type == 'p') ? "0123456789ABCDEF" : "0123456789abcdef";
    char digits[32];
    int n = 0;
    for (unsigned long long v = magnitude; v != 0; v /= unsigned(base)) {
        digits[n++] = digitsOf[v % unsigned(base)];
    }
    int precision = conv.precision < 0 ? 1 : conv.precision;
    if (type == 'p') {
        precision = 16;
    }
    int zeroes = precision > n ? precision - n : 0;
    std::string prefix;
    bool isSigned = type == 'd' || type == 'i';
    if (isSigned) {
        prefix = negative ? "-" : conv.plus ? "+" : conv.space ? " " : "";
    }
    if (conv.alternate && magnitude != 0) {
        if (type == 'x') {
            prefix = "0x";
        } else if (type == 'X') {
            prefix = "0X";
        } else if (type == 'o' && zeroes == 0) {
            zeroes = 1;
        }
    }
    int length = int(prefix.size()) + zeroes + n;
    int fill = conv.width > length ? conv.width - length : 0;
    // "0" pads between the sign and the digits, unless a precision or "-"
    // says otherwise, as C's printf does.
    bool zeroFill = conv.zero && !conv.left && conv.precision < 0;
    if (!conv.left && !zeroFill) {
        pad(sink, ' ', fill);
    }
    sink.narrow(prefix.data(), prefix.size());
    if (zeroFill) {
        pad(sink, '0', fill);
    }
    pad(sink, '0', zeroes);
    for (int i = n; i-- > 0;) {
        sink.narrow(&digits[i], 1);
    }
    if (conv.left) {
        pad(sink, ' ', fill);
    }
}

template <typename Unit> size_t boundedLength(const Unit *text, int precision)
{
    size_t n = 0;
    while ((precision < 0 || n < size_t(precision)) && text[n] != 0) {
        n++;
    }
    return n;
}

void narrowText(FormatSink &sink, const Conversion &conv, const char *text, size_t length)
{
    int fill = conv.width > int(length) ? conv.width - int(length) : 0;
    if (!conv.left) {
        pad(sink, ' ', fill);
    }
    sink.narrow(text, length);
    if (conv.left) {
        pad(sink, ' ', fill);
    }
}

void wideText(FormatSink &sink, const Conversion &conv, const char16_t *text, size_t length)
{
    int fill = conv.width > int(length) ? conv.width - int(length) : 0;
    if (!conv.left) {
        pad(sink, ' ', fill);
    }
    sink.wide(text, length);
    if (conv.left) {
        pad(sink, ' ', fill);
    }
}

// Is the string or character argument wide? Narrow formats default to narrow
// for the lower-case conversion, wide formats to wide; the upper-case one is
// the other kind; "h" forces narrow and "l"/"w" wide.
bool wideArgument(const Conversion &conv, bool upper, bool wideFormat)
{
    if (conv.size == Size::Short) {
        return false;
    }
    if (conv.size == Size::Long || conv.size == Size::Wide) {
        return true;
    }
    return upper != wideFormat;
}

void floating(FormatSink &sink, const Conversion &conv, char type, double value)
{
    std::string format = "%";
    format += conv.left ? "-" : "";
    format += conv.plus ? "+" : "";
    format += conv.space ? " " : "";
    format += conv.alternate ? "#" : "";
    format += conv.zero ? "0" : "";
    format += "*.*";
    format += type;
    char buffer[512];
    int n = std::snprintf(buffer, sizeof buffer, format.c_str(), conv.width, conv.precision < 0 ? 6 : conv.precision,
                          value);
    if (n > 0) {
        sink.narrow(buffer, size_t(n) < sizeof buffer ? size_t(n) : sizeof buffer - 1);
    }
}

template <typename Ch> void emitLiteral(FormatSink &sink, const Ch *begin, const Ch *end);
template <> void emitLiteral<char>(FormatSink &sink, const char *begin, const char *end)
{
    sink.narrow(begin, size_t(end - begin));
}
template <> void emitLiteral<char16_t>(FormatSink &sink, const char16_t *begin, const char16_t *end)
{
    sink.wide(begin, size_t(end - begin));
}

const char kNull[] = "(null)";

// Formats one conversion starting after '%'; returns where the format goes on.
template <typename Ch> const Ch *conversion(FormatSink &sink, const Ch *p, Args &args, bool wideFormat)
{
    const Ch *start = p - 1; // the '%'
    Conversion conv;
    for (;; p++) {
        if (*p == Ch('-')) {
            conv.left = true;
        } else if (*p == Ch('+')) {
            conv.plus = true;
        } else if (*p == Ch(' ')) {
            conv.space = true;
        } else if (*p == Ch('#')) {
            conv.alternate = true;
        } else if (*p == Ch('0')) {
            conv.zero = true;
        } else {
            break;
        }
    }
    if (*p == Ch('*')) {
        conv.width = va_arg(args.list, int);
        if (conv.width < 0) {
            conv.left = true;
            conv.width = -conv.width;
        }
        p++;
    } else {
        while (isDigit(*p)) {
            conv.width = conv.width * 10 + int(*p++ - Ch('0'));
        }
    }
    if (*p == Ch('.')) {
        p++;
        conv.precision = 0;
        if (*p == Ch('*')) {
            conv.precision = va_arg(args.list, int);
            if (conv.precision < 0) {
                conv.precision = -1;
            }
            p++;
        } else {
            while (isDigit(*p)) {
                conv.precision = conv.precision * 10 + int(*p++ - Ch('0'));
            }
        }
    }
    if (*p == Ch('h')) {
        p++;
        conv.size = Size::Short;
        if (*p == Ch('h')) {
            p++;
            conv.size = Size::Char;
        }
    } else if (*p == Ch('l')) {
        p++;
        conv.size = Size::Long;
        if (*p == Ch('l')) {
            p++;
            conv.size = Size::LongLong;
        }
    } else if (*p == Ch('w')) {
        p++;
        conv.size = Size::Wide;
    } else if (*p == Ch('L') || *p == Ch('z') || *p == Ch('t') || *p == Ch('j')) {
        p++;
        conv.size = Size::LongLong;
    } else if (*p == Ch('I')) {
        p++;
        if (p[0] == Ch('6') && p[1] == Ch('4')) {
            p += 2;
            conv.size = Size::LongLong;
        } else if (p[0] == Ch('3') && p[1] == Ch('2')) {
            p += 2;
            conv.size = Size::Long;
        } else {
            conv.size = Size::LongLong; // pointer-sized on x64
        }
    }
    Ch type = *p;
    if (type == 0) {
        emitLiteral(sink, start, p);
        return p;
    }
    p++;
    switch (char(type)) {
    case 'd':
    case 'i': {
        long long value;
        if (conv.size == Size::LongLong) {
            value = va_arg(args.list, long long);
        } else {
            int v = va_arg(args.list, int);
            value = conv.size == Size::Short ? short(v) : conv.size == Size::Char ? (signed char)(v) : v;
        }
        bool negative = value < 0;
        integer(sink, conv, char(type), negative,
                negative ? 0ull - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value));
        break;
    }
    case 'u':
    case 'o':
    case 'x':
    case 'X': {
        unsigned long long value;
        if (conv.size == Size::LongLong) {
            value = va_arg(args.list, unsigned long long);
        } else {
            unsigned v = va_arg(args.list, unsigned);
            value = conv.size == Size::Short ? (unsigned short)(v) : conv.size == Size::Char ? (unsigned char)(v) : v;
        }
        integer(sink, conv, char(type), false, value);
        break;
    }
    case 'p':
        integer(sink, conv, 'p', false, reinterpret_cast<ULONG_PTR>(va_arg(args.list, void *)));
        break;
    case 'c':
    case 'C': {
        int value = va_arg(args.list, int);
        if (wideArgument(conv, type == Ch('C'), wideFormat)) {
            char16_t unit = char16_t(value);
            wideText(sink, conv, &unit, 1);
        } else {
            char unit = char(value);
            narrowText(sink, conv, &unit, 1);
        }
        break;
    }
    case 's':
    case 'S': {
        const void *text = va_arg(args.list, const void *);
        if (text == nullptr) {
            narrowText(sink, conv, kNull, boundedLength(kNull, conv.precision));
        } else if (wideArgument(conv, type == Ch('S'), wideFormat)) {
            auto wide = static_cast<const char16_t *>(text);
            wideText(sink, conv, wide, boundedLength(wide, conv.precision));
        } else {
            auto narrow = static_cast<const char *>(text);
            narrowText(sink, conv, narrow, boundedLength(narrow, conv.precision));
        }
        break;
    }
    case 'Z': {
        // A counted string: ANSI_STRING, or UNICODE_STRING with "w"/"l".
        const void *string = va_arg(args.list, const void *);
        bool wide = conv.size == Size::Wide || conv.size == Size::Long;
        if (string == nullptr) {
            narrowText(sink, conv, kNull, 6);
        } else if (wide) {
            auto counted = static_cast<const UNICODE_STRING *>(string);
            if (counted->Buffer == nullptr) {
                narrowText(sink, conv, kNull, 6);
            } else {
                wideText(sink, conv, reinterpret_cast<const char16_t *>(counted->Buffer),
                         counted->Length / sizeof(WCHAR));
            }
        } else {
            auto counted = static_cast<const ANSI_STRING *>(string);
            if (counted->Buffer == nullptr) {
                narrowText(sink, conv, kNull, 6);
            } else {
                narrowText(sink, conv, counted->Buffer, counted->Length);
            }
        }
        break;
    }
    case 'n':
        (void)va_arg(args.list, void *);
        break;
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        floating(sink, conv, char(type), va_arg(args.list, double));
        break;
    case '%':
        sink.narrow("%", 1);
        break;
    default:
        emitLiteral(sink, start, p);
        break;
    }
    return p;
}

template <typename Ch> void run(FormatSink &sink, const Ch *format, __builtin_ms_va_list list, bool wideFormat)
{
    // The Windows list is a plain pointer into the caller's arguments, and
    // copying it is an assignment. (g++ 12 at -O0 compiles
    // __builtin_ms_va_copy in a System V function as a copy of the System V
    // list, a 24-byte structure, and reads through the pointer.)
    Args args{list};
    const Ch *p = format;
    while (*p != 0) {
        const Ch *literal = p;
        while (*p != 0 && *p != Ch('%')) {
            p++;
        }
        if (p != literal) {
            emitLiteral(sink, literal, p);
        }
        if (*p == Ch('%')) {
            p = conversion(sink, p + 1, args, wideFormat);
        }
    }
}

} // namespace

void formatNarrow(FormatSink &sink, const char *format, __builtin_ms_va_list args)
{
    run(sink, format, args, false);
}

void formatWide(FormatSink &sink, const char16_t *format, __builtin_ms_va_list args)
{
    run(sink, format, args, true);
}

std::string utf16ToUtf8(std::u16string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); i++) {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (char32_t(text[i + 1]) - 0xDC00);
            i++;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | (c >> 6));
            out += char(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += char(0xE0 | (c >> 12));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xF0 | (c >> 18));
            out += char(0x80 | ((c >> 12) & 0x3F));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

} // namespace hostkernel::detail
