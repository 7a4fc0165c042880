// Small UTF-16 string helpers. The driver keeps to these rather than the C
// library's wide-character functions, whose unit size differs between targets.
#pragma once

#include "platform.h"

// Code units before the terminating NUL.
inline SIZE_T AmWcsLen(_In_z_ PCWSTR s)
{
    SIZE_T n = 0;
    while (s[n] != L'\0') {
        n++;
    }
    return n;
}

// Code units before the NUL, but at most `max`.
inline SIZE_T AmWcsNLen(_In_reads_(max) PCWSTR s, SIZE_T max)
{
    SIZE_T n = 0;
    while (n < max && s[n] != L'\0') {
        n++;
    }
    return n;
}

// Exact comparison of two NUL-terminated strings, unit by unit.
inline BOOLEAN AmWcsEqual(_In_z_ PCWSTR a, _In_z_ PCWSTR b)
{
    SIZE_T i = 0;
    while (a[i] == b[i]) {
        if (a[i] == L'\0') {
            return TRUE;
        }
        i++;
    }
    return FALSE;
}

// First occurrence of `needle` in `haystack`, or null. An empty needle matches
// at the start.
inline PCWSTR AmWcsStr(_In_z_ PCWSTR haystack, _In_z_ PCWSTR needle)
{
    for (PCWSTR start = haystack;; start++) {
        SIZE_T i = 0;
        while (needle[i] != L'\0' && start[i] == needle[i]) {
            i++;
        }
        if (needle[i] == L'\0') {
            return start;
        }
        if (*start == L'\0') {
            return NULL;
        }
    }
}
