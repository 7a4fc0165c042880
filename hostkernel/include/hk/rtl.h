// Run-time library: counted strings, GUID text, integer conversion and the
// safe-string formatters, with the Windows routines' results.
#pragma once

#include "ntdef.h"

void NTAPI RtlInitUnicodeString(PUNICODE_STRING destination, PCWSTR source);
// Frees a string that RtlStringFromGUID (or another allocating Rtl routine) made.
void NTAPI RtlFreeUnicodeString(PUNICODE_STRING string);
void NTAPI RtlCopyUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source);
BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN caseInsensitive);
LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN caseInsensitive);
SIZE_T NTAPI RtlCompareMemory(const void *a, const void *b, SIZE_T length);

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", upper-case hex, allocated from pool.
NTSTATUS NTAPI RtlStringFromGUID(REFGUID guid, PUNICODE_STRING guidString);
// Accepts exactly the braced 38-character form, hex digits of either case.
NTSTATUS NTAPI RtlGUIDFromString(PCUNICODE_STRING guidString, GUID *guid);
// Leading white space, an optional sign, digits in the base (0 = by prefix);
// stops at the first character that is not a digit.
NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING string, ULONG base, PULONG value);

// ntstrsafe: wide formats, where "%s" and "%ls" both take wide strings and
// "%hs" a narrow one. Results: STATUS_SUCCESS, STATUS_BUFFER_OVERFLOW (the
// output is cut and terminated), STATUS_INVALID_PARAMETER.
#define NTSTRSAFE_MAX_CCH 2147483647
// ntoskrnl's C run-time formatter, which ntstrsafe's printers are built on:
// wide format, arguments in the Windows convention's list. Text that fits
// with room for a terminator is terminated and its length returned; text of
// exactly `count` characters is written without a terminator and `count`
// returned; longer text is cut at `count` characters, not terminated, and -1
// returned. A null format, a null buffer with a count, or a count above
// INT_MAX give -1 and write nothing.
int __cdecl _vsnwprintf(wchar_t *buffer, size_t count, const wchar_t *format, __builtin_ms_va_list arguments);
NTSTATUS NTAPI RtlStringCchPrintfW(PWSTR destination, SIZE_T cchDestination, PCWSTR format, ...);
NTSTATUS NTAPI RtlStringCbPrintfW(PWSTR destination, SIZE_T cbDestination, PCWSTR format, ...);
NTSTATUS NTAPI RtlUnicodeStringPrintf(PUNICODE_STRING destination, PCWSTR format, ...);
NTSTATUS NTAPI RtlStringCchLengthW(PCWSTR string, SIZE_T cchMax, SIZE_T *length);
NTSTATUS NTAPI RtlStringCchCopyW(PWSTR destination, SIZE_T cchDestination, PCWSTR source);
