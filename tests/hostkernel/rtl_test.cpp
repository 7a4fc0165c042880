// The run-time library's conversions and safe-string printers, with the
// results the Windows routines give.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "hostkernel/executive.h"
#include "amplatform.h"

namespace {

namespace hk = hostkernel;

// A counted string over `text` that is not terminated where it ends.
struct Counted {
    explicit Counted(std::u16string text) : storage(std::move(text) + u"#junk")
    {
        string.Buffer = reinterpret_cast<PWSTR>(storage.data());
        string.Length = USHORT((storage.size() - 5) * sizeof(WCHAR));
        string.MaximumLength = USHORT(storage.size() * sizeof(WCHAR));
    }
    std::u16string storage;
    UNICODE_STRING string{};
};

std::string narrowed(const char16_t *s)
{
    std::string out;
    for (; *s != 0; s++) {
        out += *s < 0x7F && *s >= 0x20 ? char(*s) : '?';
    }
    return out;
}

std::u16string text(PCWSTR s)
{
    return reinterpret_cast<const char16_t *>(s);
}

TEST(Rtl, UnicodeStringToInteger)
{
    struct Case {
        const char16_t *text;
        ULONG base;
        NTSTATUS status;
        ULONG value;
    };
    const Case cases[] = {
        {u"65536", 10, STATUS_SUCCESS, 65536},
        {u"  \t\r\n42", 10, STATUS_SUCCESS, 42},
        {u"\x01\x1F 7", 10, STATUS_SUCCESS, 7}, // every control character is white space
        {u"+9", 10, STATUS_SUCCESS, 9},
        {u"-5", 10, STATUS_SUCCESS, ULONG(-5)},
        {u" -0x10", 0, STATUS_SUCCESS, ULONG(-16)},
        {u"12abc", 10, STATUS_SUCCESS, 12},
        {u"1 2", 10, STATUS_SUCCESS, 1},
        {u"0x1F", 0, STATUS_SUCCESS, 31},
        {u"0o17", 0, STATUS_SUCCESS, 15},
        {u"0b101", 0, STATUS_SUCCESS, 5},
        {u"0X1F", 0, STATUS_SUCCESS, 0}, // prefixes are lower case only
        {u"017", 0, STATUS_SUCCESS, 17}, // no octal by leading zero
        {u"0x1F", 16, STATUS_SUCCESS, 0}, // a prefix only when the base is 0
        {u"1f", 16, STATUS_SUCCESS, 31},
        {u"FfZ", 16, STATUS_SUCCESS, 255},
        {u"1012", 2, STATUS_SUCCESS, 5},
        {u"789", 8, STATUS_SUCCESS, 7},
        {u"4294967295", 10, STATUS_SUCCESS, 0xFFFFFFFFu},
        {u"4294967296", 10, STATUS_SUCCESS, 0},  // wraps, no overflow status
        {u"4294967297", 10, STATUS_SUCCESS, 1},
        {u"", 10, STATUS_SUCCESS, 0},            // no digits: 0 and success
        {u"   ", 10, STATUS_SUCCESS, 0},
        {u"-", 10, STATUS_SUCCESS, 0},
        {u"abc", 10, STATUS_SUCCESS, 0},
        {u"10", 7, STATUS_INVALID_PARAMETER, 1234},
        {u"10", 1, STATUS_INVALID_PARAMETER, 1234},
        {u"10", 36, STATUS_INVALID_PARAMETER, 1234},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(narrowed(c.text));
        Counted s(c.text);
        ULONG value = 1234;
        EXPECT_EQ(RtlUnicodeStringToInteger(&s.string, c.base, &value), c.status);
        EXPECT_EQ(value, c.value);
    }
    // Only Length counts: the characters after it are not read.
    Counted cut(u"123");
    cut.storage[3] = u'9';
    ULONG value = 0;
    EXPECT_EQ(RtlUnicodeStringToInteger(&cut.string, 10, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 123u);
}

TEST(Rtl, GuidText)
{
    const GUID expected = {0x6994AD04, 0x93EF, 0x11D0, {0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
    struct Case {
        const char16_t *text;
        NTSTATUS status;
    };
    const Case cases[] = {
        {u"{6994AD04-93EF-11D0-A3CC-00A0C9223196}", STATUS_SUCCESS},
        {u"{6994ad04-93ef-11d0-a3cc-00a0c9223196}", STATUS_SUCCESS},
        {u"6994AD04-93EF-11D0-A3CC-00A0C9223196", STATUS_INVALID_PARAMETER},
        {u"{6994AD04-93EF-11D0-A3CC-00A0C9223196", STATUS_INVALID_PARAMETER},
        {u"{6994AD04-93EF-11D0-A3CC-00A0C9223196}x", STATUS_INVALID_PARAMETER},
        {u"(6994AD04-93EF-11D0-A3CC-00A0C9223196)", STATUS_INVALID_PARAMETER},
        {u"{6994AD04-93EF-11D0-A3CC-00A0C922319G}", STATUS_INVALID_PARAMETER},
        {u"{6994AD04+93EF-11D0-A3CC-00A0C9223196}", STATUS_INVALID_PARAMETER},
        {u"{6994AD0-493EF-11D0-A3CC-00A0C9223196}", STATUS_INVALID_PARAMETER},
        {u"{6994AD04-93EF-11D0-A3CC00-A0C9223196}", STATUS_INVALID_PARAMETER},
        {u"{ 994AD04-93EF-11D0-A3CC-00A0C9223196}", STATUS_INVALID_PARAMETER},
        {u"", STATUS_INVALID_PARAMETER},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(narrowed(c.text));
        Counted s(c.text);
        GUID parsed = GUID_NULL;
        EXPECT_EQ(RtlGUIDFromString(&s.string, &parsed), c.status);
        EXPECT_TRUE(parsed == (c.status == STATUS_SUCCESS ? expected : GUID_NULL));
    }

    UNICODE_STRING made;
    size_t liveBefore = hk::poolLiveAllocations();
    ASSERT_EQ(RtlStringFromGUID(expected, &made), STATUS_SUCCESS);
    EXPECT_EQ(hk::poolLiveAllocations(), liveBefore + 1);
    EXPECT_EQ(text(made.Buffer), u"{6994AD04-93EF-11D0-A3CC-00A0C9223196}");
    EXPECT_EQ(made.Length, 76);
    EXPECT_EQ(made.MaximumLength, 78);
    GUID back;
    EXPECT_EQ(RtlGUIDFromString(&made, &back), STATUS_SUCCESS);
    EXPECT_TRUE(back == expected);
    RtlFreeUnicodeString(&made);
    EXPECT_EQ(made.Buffer, nullptr);
    EXPECT_EQ(hk::poolLiveAllocations(), liveBefore);

    hk::failNextPoolAllocations(0);
    EXPECT_EQ(RtlStringFromGUID(expected, &made), STATUS_NO_MEMORY);
    EXPECT_EQ(made.Buffer, nullptr);
    EXPECT_EQ(hk::poolLiveAllocations(), liveBefore);
}

TEST(Rtl, SafePrintersCutAndTerminate)
{
    struct Case {
        const char *name;
        size_t cch;
        std::function<NTSTATUS(PWSTR, size_t)> print;
        NTSTATUS status;
        const char16_t *result; // null: the buffer is untouched
    };
    auto ambrel = [](PWSTR d, size_t n) { return RtlStringCchPrintfW(d, n, L"ambrel%d", 5); };
    auto bytes = [](PWSTR d, size_t n) { return RtlStringCbPrintfW(d, n, L"%s-%d", L"abc", 12); };
    auto copy = [](PWSTR d, size_t n) { return RtlStringCchCopyW(d, n, L"abc"); };
    const Case cases[] = {
        {"room to spare", 16, ambrel, STATUS_SUCCESS, u"ambrel5"},
        {"exactly enough", 8, ambrel, STATUS_SUCCESS, u"ambrel5"},
        {"one short", 7, ambrel, STATUS_BUFFER_OVERFLOW, u"ambrel"},
        {"only the terminator", 1, ambrel, STATUS_BUFFER_OVERFLOW, u""},
        {"no room at all", 0, ambrel, STATUS_INVALID_PARAMETER, nullptr},
        {"beyond the maximum", size_t(NTSTRSAFE_MAX_CCH) + 1, ambrel, STATUS_INVALID_PARAMETER, nullptr},
        {"bytes, even", 16, bytes, STATUS_SUCCESS, u"abc-12"},
        {"bytes, an odd count rounds down", 11, bytes, STATUS_BUFFER_OVERFLOW, u"abc-"},
        {"bytes, less than one character", 1, bytes, STATUS_INVALID_PARAMETER, nullptr},
        {"copy that fits", 4, copy, STATUS_SUCCESS, u"abc"},
        {"copy cut", 3, copy, STATUS_BUFFER_OVERFLOW, u"ab"},
        {"copy into nothing", 0, copy, STATUS_INVALID_PARAMETER, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        WCHAR buffer[32];
        for (WCHAR &w : buffer) {
            w = L'?';
        }
        EXPECT_EQ(c.print(buffer, c.cch), c.status);
        if (c.result == nullptr) {
            EXPECT_EQ(buffer[0], L'?');
        } else {
            EXPECT_EQ(text(buffer), c.result);
        }
    }
}

// ntoskrnl's _vsnwprintf as ntstrsafe's inline printers call it: from a
// variadic routine of the Windows convention that hands on its list.
int NTAPI printInto(wchar_t *buffer, size_t count, const wchar_t *format, ...)
{
    __builtin_ms_va_list args;
    __builtin_ms_va_start(args, format);
    int written = _vsnwprintf(buffer, count, format, args);
    __builtin_ms_va_end(args);
    return written;
}

#define VSN_ROW(name, buffered, count, result, contents, ...)                                            \
    {                                                                                                    \
        name, buffered, count, [](wchar_t *b, size_t n) { return printInto(b, n, __VA_ARGS__); }, result, \
            std::u16string(contents, sizeof(contents) / sizeof(char16_t) - 1)                            \
    }

TEST(Rtl, VsnwprintfTerminatesOnlyWhatFitsWithRoomToSpare)
{
    struct Case {
        const char *name;
        bool buffered; // false: a null buffer
        size_t count;
        int (*print)(wchar_t *, size_t);
        int result;
        std::u16string contents; // the whole 10-unit buffer afterwards
    };
    const Case cases[] = {
        VSN_ROW("room to spare", true, 10, 7, u"ambrel7\0??", L"ambrel%d", 7),
        VSN_ROW("room for the terminator", true, 8, 7, u"ambrel7\0??", L"ambrel%d", 7),
        VSN_ROW("exactly full: no terminator", true, 7, 7, u"ambrel7???", L"ambrel%d", 7),
        VSN_ROW("one short: cut, no terminator", true, 6, -1, u"ambrel????", L"ambrel%d", 7),
        VSN_ROW("no room", true, 0, -1, u"??????????", L"ambrel%d", 7),
        VSN_ROW("nothing into no room", true, 0, 0, u"??????????", L""),
        VSN_ROW("nothing", true, 1, 0, u"\0?????????", L""),
        VSN_ROW("arguments past the registers", true, 10, 9, u"Pi|1f|no!\0", L"%s|%I64x|%hs%c", L"Pi",
                0x1Full, "no", L'!'),
        VSN_ROW("a double among them", true, 10, 8, u"2.50|x|7\0?", L"%.2f|%hc|%d", 2.5, 'x', 7),
        VSN_ROW("null buffer, no count", false, 0, -1, u"??????????", L"x"),
        VSN_ROW("null buffer with a count", false, 5, -1, u"??????????", L"x"),
        VSN_ROW("null format", true, 10, -1, u"??????????", static_cast<const wchar_t *>(nullptr)),
        VSN_ROW("a negative count", true, size_t(-1), -1, u"??????????", L"x"),
        VSN_ROW("a count above INT_MAX", true, size_t(2147483648u), -1, u"??????????", L"x"),
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::u16string buffer(10, u'?');
        EXPECT_EQ(c.print(c.buffered ? reinterpret_cast<wchar_t *>(buffer.data()) : nullptr, c.count), c.result);
        EXPECT_EQ(buffer, c.contents);
    }
}

TEST(Rtl, CountedStringPrinterFillsWithoutTerminator)
{
    struct Case {
        USHORT maximumLength;
        USHORT length;
        NTSTATUS status;
        const char16_t *result;
    };
    const Case cases[] = {
        {32, 0, STATUS_SUCCESS, u"ambrel12"},
        {16, 6, STATUS_SUCCESS, u"ambrel12"}, // exactly full, no terminator needed
        {12, 0, STATUS_BUFFER_OVERFLOW, u"ambrel"},
        {0, 0, STATUS_BUFFER_OVERFLOW, u""},
        {11, 0, STATUS_INVALID_PARAMETER, u""}, // odd byte count
        {8, 10, STATUS_INVALID_PARAMETER, nullptr}, // Length beyond the buffer
    };
    // Called as the driver calls it, arguments past the registers included.
    auto print = [](PUNICODE_STRING s) NTAPI { return RtlUnicodeStringPrintf(s, L"%s%I64d%c", L"ambrel", 1ll, L'2'); };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.maximumLength);
        WCHAR buffer[16];
        UNICODE_STRING s{c.length, c.maximumLength, buffer};
        EXPECT_EQ(print(&s), c.status);
        if (c.result != nullptr) {
            EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(buffer), s.Length / sizeof(WCHAR)),
                      c.result);
        }
    }
}

TEST(Rtl, CountedStrings)
{
    struct Case {
        const char16_t *left, *right;
        bool caseInsensitive;
        int sign; // of the comparison
    };
    const Case cases[] = {
        {u"Piano", u"Piano", false, 0}, {u"Piano", u"PIANO", false, 1}, {u"Piano", u"PIANO", true, 0},
        {u"\u00E9t\u00E9", u"\u00C9T\u00C9", true, 0}, {u"Pian", u"Piano", true, -1}, {u"", u"", false, 0},
    };
    for (const Case &c : cases) {
        Counted l(c.left), r(c.right);
        LONG result = RtlCompareUnicodeString(&l.string, &r.string, c.caseInsensitive);
        EXPECT_EQ((result > 0) - (result < 0), c.sign) << narrowed(c.left) << " " << narrowed(c.right);
        EXPECT_EQ(RtlEqualUnicodeString(&l.string, &r.string, c.caseInsensitive), c.sign == 0);
    }

    UNICODE_STRING piano;
    RtlInitUnicodeString(&piano, L"Piano");
    EXPECT_TRUE(piano.Length == 10 && piano.MaximumLength == 12);
    WCHAR storage[4];
    UNICODE_STRING small{0, sizeof storage, storage};
    RtlCopyUnicodeString(&small, &piano); // cut to the destination, no room for a terminator
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(storage), small.Length / 2), u"Pian");

    SIZE_T length = 99;
    EXPECT_EQ(RtlStringCchLengthW(L"abc", 4, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(RtlStringCchLengthW(L"abc", 3, &length), STATUS_INVALID_PARAMETER); // no terminator within 3
    EXPECT_EQ(length, 0u);
}

} // namespace
