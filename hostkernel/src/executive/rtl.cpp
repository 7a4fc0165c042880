// Run-time library: counted strings, GUID text, integer conversion and the
// ntstrsafe printers, with the results the Windows routines give.
#include <climits>
#include <string>

#include "hk/ex.h"
#include "hk/ke.h"
#include "hk/ntstatus.h"
#include "hk/rtl.h"
#include "internal.h"

namespace {

// Strings the run-time library allocates for its callers ('Strg', paged, as
// the kernel's string routines allocate theirs).
constexpr ULONG kStringTag = hostkernel::tag("Strg");
// A counted string holds at most this many characters (USHORT byte counts).
constexpr size_t kUnicodeStringMaxChars = 32767;

const char16_t *units(PCWSTR s)
{
    return reinterpret_cast<const char16_t *>(s);
}

size_t unitLength(const char16_t *s)
{
    size_t n = 0;
    while (s[n] != 0) {
        n++;
    }
    return n;
}

// RtlUpcaseUnicodeChar for the characters a driver's names use: ASCII and
// Latin-1 letters.
char16_t upcase(char16_t c)
{
    if (c >= u'a' && c <= u'z') {
        return char16_t(c - 0x20);
    }
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7) {
        return char16_t(c - 0x20);
    }
    if (c == 0xFF) {
        return 0x178;
    }
    return c;
}

int hexDigit(char16_t c)
{
    if (c >= u'0' && c <= u'9') {
        return c - u'0';
    }
    if (c >= u'a' && c <= u'f') {
        return c - u'a' + 10;
    }
    if (c >= u'A' && c <= u'F') {
        return c - u'A' + 10;
    }
    return -1;
}

// Collects the formatter's output as UTF-16; narrow arguments widen byte for
// byte, as the C run-time's "C" locale does.
class WideSink final : public hostkernel::detail::FormatSink {
public:
    void narrow(const char *text, size_t length) override
    {
        for (size_t i = 0; i < length; i++) {
            out.push_back(char16_t(static_cast<unsigned char>(text[i])));
        }
    }
    void wide(const char16_t *text, size_t length) override { out.append(text, length); }

    std::u16string out;
};

// ntstrsafe's use of _vsnwprintf: one unit of `cch` is kept back for the
// terminator, which goes after whatever was written when the text filled or
// overflowed the rest.
NTSTATUS printTerminated(PWSTR destination, size_t cch, PCWSTR format, __builtin_ms_va_list args)
{
    if (format == nullptr) {
        destination[0] = 0;
        return STATUS_INVALID_PARAMETER;
    }
    size_t room = cch - 1;
    int written = _vsnwprintf(destination, room, format, args);
    if (written < 0 || size_t(written) == room) {
        destination[room] = 0;
    }
    return written < 0 ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

} // namespace

void RtlInitUnicodeString(PUNICODE_STRING destination, PCWSTR source)
{
    destination->Buffer = const_cast<PWSTR>(source);
    if (source == nullptr) {
        destination->Length = 0;
        destination->MaximumLength = 0;
        return;
    }
    size_t chars = unitLength(units(source));
    // As on Windows, a longer string is cut to what a USHORT can count.
    if (chars > kUnicodeStringMaxChars - 1) {
        chars = kUnicodeStringMaxChars - 1;
    }
    destination->Length = USHORT(chars * sizeof(WCHAR));
    destination->MaximumLength = USHORT(destination->Length + sizeof(WCHAR));
}

void RtlFreeUnicodeString(PUNICODE_STRING string)
{
    if (string->Buffer != nullptr) {
        ExFreePool(string->Buffer);
    }
    string->Buffer = nullptr;
    string->Length = 0;
    string->MaximumLength = 0;
}

void RtlCopyUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source)
{
    if (source == nullptr || source->Buffer == nullptr) {
        destination->Length = 0;
        return;
    }
    USHORT bytes = source->Length < destination->MaximumLength ? source->Length : destination->MaximumLength;
    memmove(destination->Buffer, source->Buffer, bytes);
    destination->Length = bytes;
    if (bytes + sizeof(WCHAR) <= destination->MaximumLength) {
        destination->Buffer[bytes / sizeof(WCHAR)] = 0;
    }
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN caseInsensitive)
{
    size_t na = a->Length / sizeof(WCHAR);
    size_t nb = b->Length / sizeof(WCHAR);
    size_t n = na < nb ? na : nb;
    for (size_t i = 0; i < n; i++) {
        char16_t ca = char16_t(a->Buffer[i]);
        char16_t cb = char16_t(b->Buffer[i]);
        if (caseInsensitive) {
            ca = upcase(ca);
            cb = upcase(cb);
        }
        if (ca != cb) {
            return LONG(ca) - LONG(cb);
        }
    }
    return LONG(a->Length) - LONG(b->Length);
}

BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN caseInsensitive)
{
    return a->Length == b->Length && RtlCompareUnicodeString(a, b, caseInsensitive) == 0;
}

SIZE_T RtlCompareMemory(const void *a, const void *b, SIZE_T length)
{
    auto pa = static_cast<const UCHAR *>(a);
    auto pb = static_cast<const UCHAR *>(b);
    SIZE_T same = 0;
    while (same < length && pa[same] == pb[same]) {
        same++;
    }
    return same;
}

// ------------------------------------------------------------------ GUIDs
NTSTATUS RtlStringFromGUID(REFGUID guid, PUNICODE_STRING guidString)
{
    constexpr size_t kChars = 38;
    auto buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, (kChars + 1) * sizeof(WCHAR), kStringTag));
    if (buffer == nullptr) {
        guidString->Buffer = nullptr;
        guidString->Length = 0;
        guidString->MaximumLength = 0;
        return STATUS_NO_MEMORY;
    }
    static const char16_t digits[] = u"0123456789ABCDEF";
    size_t at = 0;
    auto put = [&](uint64_t value, int hexDigits) {
        for (int shift = (hexDigits - 1) * 4; shift >= 0; shift -= 4) {
            buffer[at++] = WCHAR(digits[(value >> shift) & 0xF]);
        }
    };
    buffer[at++] = L'{';
    put(guid.Data1, 8);
    buffer[at++] = L'-';
    put(guid.Data2, 4);
    buffer[at++] = L'-';
    put(guid.Data3, 4);
    buffer[at++] = L'-';
    put(guid.Data4[0], 2);
    put(guid.Data4[1], 2);
    buffer[at++] = L'-';
    for (int i = 2; i < 8; i++) {
        put(guid.Data4[i], 2);
    }
    buffer[at++] = L'}';
    buffer[at] = 0;
    guidString->Buffer = buffer;
    guidString->Length = USHORT(kChars * sizeof(WCHAR));
    guidString->MaximumLength = USHORT((kChars + 1) * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

NTSTATUS RtlGUIDFromString(PCUNICODE_STRING guidString, GUID *guid)
{
    // "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}": digits of each group, '-'
    // (or a brace) after it.
    static const int groups[] = {8, 4, 4, 4, 12};
    if (guidString == nullptr || guid == nullptr || guidString->Buffer == nullptr ||
        guidString->Length != 38 * sizeof(WCHAR)) {
        return STATUS_INVALID_PARAMETER;
    }
    const char16_t *s = units(guidString->Buffer);
    if (s[0] != u'{' || s[37] != u'}') {
        return STATUS_INVALID_PARAMETER;
    }
    uint8_t bytes[16];
    size_t at = 1;
    size_t byte = 0;
    for (int g = 0; g < 5; g++) {
        if (g > 0) {
            if (s[at++] != u'-') {
                return STATUS_INVALID_PARAMETER;
            }
        }
        for (int i = 0; i < groups[g]; i += 2) {
            int high = hexDigit(s[at]);
            int low = hexDigit(s[at + 1]);
            if (high < 0 || low < 0) {
                return STATUS_INVALID_PARAMETER;
            }
            bytes[byte++] = uint8_t(high << 4 | low);
            at += 2;
        }
    }
    GUID parsed;
    parsed.Data1 = ULONG(bytes[0]) << 24 | ULONG(bytes[1]) << 16 | ULONG(bytes[2]) << 8 | bytes[3];
    parsed.Data2 = USHORT(bytes[4] << 8 | bytes[5]);
    parsed.Data3 = USHORT(bytes[6] << 8 | bytes[7]);
    memcpy(parsed.Data4, bytes + 8, 8);
    *guid = parsed;
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------ integers
NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING string, ULONG base, PULONG value)
{
    if (string == nullptr || value == nullptr) {
        return STATUS_ACCESS_VIOLATION;
    }
    const char16_t *s = string->Buffer != nullptr ? units(string->Buffer) : u"";
    size_t left = string->Buffer != nullptr ? string->Length / sizeof(WCHAR) : 0;
    // Everything up to and including the blank counts as white space.
    while (left > 0 && *s <= u' ') {
        s++;
        left--;
    }
    bool negative = false;
    if (left > 0 && (*s == u'+' || *s == u'-')) {
        negative = *s == u'-';
        s++;
        left--;
    }
    if (base == 0) {
        base = 10;
        if (left >= 2 && s[0] == u'0') {
            ULONG prefixed = s[1] == u'x' ? 16 : s[1] == u'o' ? 8 : s[1] == u'b' ? 2 : 0;
            if (prefixed != 0) {
                base = prefixed;
                s += 2;
                left -= 2;
            }
        }
    } else if (base != 2 && base != 8 && base != 10 && base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    // No digits at all gives 0 and success, as on Windows; digits beyond
    // 32 bits wrap, as on Windows (no overflow status).
    ULONG total = 0;
    for (; left > 0; s++, left--) {
        char16_t c = upcase(*s);
        ULONG digit;
        if (c >= u'0' && c <= u'9') {
            digit = ULONG(c - u'0');
        } else if (c >= u'A' && c <= u'Z') {
            digit = ULONG(c - u'A') + 10;
        } else {
            break;
        }
        if (digit >= base) {
            break;
        }
        total = total * base + digit;
    }
    *value = negative ? 0u - total : total;
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------ ntstrsafe
int __cdecl _vsnwprintf(wchar_t *buffer, size_t count, const wchar_t *format, __builtin_ms_va_list args)
{
    // Refusals write nothing. A count beyond INT_MAX could not be answered
    // with a count of characters, and usually is a negative number gone
    // unsigned: no buffer is that large.
    if (format == nullptr || (buffer == nullptr && count != 0) || count > size_t(INT_MAX)) {
        return -1;
    }
    WideSink sink;
    hostkernel::detail::formatWide(sink, units(format), args);
    size_t length = sink.out.size();
    size_t copied = length < count ? length : count;
    if (copied > 0) {
        memcpy(buffer, sink.out.data(), copied * sizeof(WCHAR));
    }
    if (length < count) {
        buffer[length] = 0;
    }
    return length <= count ? int(length) : -1;
}

NTSTATUS NTAPI RtlStringCchPrintfW(PWSTR destination, SIZE_T cchDestination, PCWSTR format, ...)
{
    if (destination == nullptr || cchDestination == 0 || cchDestination > NTSTRSAFE_MAX_CCH) {
        return STATUS_INVALID_PARAMETER;
    }
    __builtin_ms_va_list args;
    __builtin_ms_va_start(args, format);
    NTSTATUS status = printTerminated(destination, cchDestination, format, args);
    __builtin_ms_va_end(args);
    return status;
}

NTSTATUS NTAPI RtlStringCbPrintfW(PWSTR destination, SIZE_T cbDestination, PCWSTR format, ...)
{
    SIZE_T cch = cbDestination / sizeof(WCHAR);
    if (destination == nullptr || cch == 0 || cch > NTSTRSAFE_MAX_CCH) {
        return STATUS_INVALID_PARAMETER;
    }
    __builtin_ms_va_list args;
    __builtin_ms_va_start(args, format);
    NTSTATUS status = printTerminated(destination, cch, format, args);
    __builtin_ms_va_end(args);
    return status;
}

NTSTATUS NTAPI RtlUnicodeStringPrintf(PUNICODE_STRING destination, PCWSTR format, ...)
{
    // A counted string needs no terminator: the whole buffer is usable and
    // Length says how much of it the text took.
    if (destination == nullptr || format == nullptr || (destination->Buffer == nullptr && destination->MaximumLength != 0) ||
        destination->Length > destination->MaximumLength || destination->Length % sizeof(WCHAR) != 0 ||
        destination->MaximumLength % sizeof(WCHAR) != 0) {
        if (destination != nullptr && destination->Length <= destination->MaximumLength) {
            destination->Length = 0;
        }
        return STATUS_INVALID_PARAMETER;
    }
    size_t room = destination->MaximumLength / sizeof(WCHAR);
    __builtin_ms_va_list args;
    __builtin_ms_va_start(args, format);
    int written = _vsnwprintf(destination->Buffer, room, format, args);
    __builtin_ms_va_end(args);
    destination->Length = USHORT((written < 0 ? room : size_t(written)) * sizeof(WCHAR));
    return written < 0 ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS RtlStringCchLengthW(PCWSTR string, SIZE_T cchMax, SIZE_T *length)
{
    NTSTATUS status = STATUS_INVALID_PARAMETER;
    SIZE_T n = 0;
    if (string != nullptr && cchMax <= NTSTRSAFE_MAX_CCH) {
        while (n < cchMax && string[n] != 0) {
            n++;
        }
        status = n < cchMax ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    }
    if (length != nullptr) {
        *length = NT_SUCCESS(status) ? n : 0;
    }
    return status;
}

NTSTATUS RtlStringCchCopyW(PWSTR destination, SIZE_T cchDestination, PCWSTR source)
{
    if (destination == nullptr || cchDestination == 0 || cchDestination > NTSTRSAFE_MAX_CCH) {
        return STATUS_INVALID_PARAMETER;
    }
    if (source == nullptr) {
        destination[0] = 0;
        return STATUS_INVALID_PARAMETER;
    }
    SIZE_T n = 0;
    while (n + 1 < cchDestination && source[n] != 0) {
        destination[n] = source[n];
        n++;
    }
    destination[n] = 0;
    return source[n] != 0 ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}
