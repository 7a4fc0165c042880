// Run-time library: counted strings, GUID text, integer conversion and the
// safe-string formatters, with the Windows routines' results.
#pragma once

#include "ntdef.h"

void RtlInitUnicodeString(PUNICODE_STRING destination, PCWSTR source);
// Frees a string that RtlStringFromGUID (or another allocating Rtl routine) made.
void RtlFreeUnicodeString(PUNICODE_STRING string);
void RtlCopyUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source);
BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN caseInsensitive);
LONG RtlCompareUnicodeString(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN caseInsensitive);
SIZE_T RtlCompareMemory(const void *a, const void *b, SIZE_T length);

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", upper-case hex, allocated from pool.
NTSTATUS RtlStringFromGUID(REFGUID guid, PUNICODE_STRING guidString);
// Accepts exactly the braced 38-character form, hex digits of either case.
NTSTATUS RtlGUIDFromString(PCUNICODE_STRING guidString, GUID *guid);
// Leading white space, an optional sign, digits in the base (0 = by prefix);
// stops at the first character that is not a digit.
NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING string, ULONG base, PULONG value);

// ntstrsafe: wide formats, where "%s" and "%ls" both take wide strings and
// "%hs" a narrow one. Results: STATUS_SUCCESS, STATUS_BUFFER_OVERFLOW (the
// output is cut and terminated), STATUS_INVALID_PARAMETER.
#define NTSTRSAFE_MAX_CCH 2147483647
NTSTATUS RtlStringCchPrintfW(PWSTR destination, SIZE_T cchDestination, PCWSTR format, ...);
NTSTATUS RtlStringCbPrintfW(PWSTR destination, SIZE_T cbDestination, PCWSTR format, ...);
NTSTATUS RtlUnicodeStringPrintf(PUNICODE_STRING destination, PCWSTR format, ...);
NTSTATUS RtlStringCchLengthW(PCWSTR string, SIZE_T cchMax, SIZE_T *length);
NTSTATUS RtlStringCchCopyW(PWSTR destination, SIZE_T cchDestination, PCWSTR source);
