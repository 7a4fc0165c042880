// Basic Windows kernel types for the host build, with Windows sizes.
//
// The host is LP64, Windows is LLP64: LONG and ULONG are spelled as 32-bit
// integers here, never as `long`. WCHAR is `wchar_t`, which the host build
// makes 16 bits wide (-fshort-wchar) so that L"..." literals are UTF-16 as on
// Windows; nothing on the host may hand such strings to the C library's wide
// functions, which expect 32-bit units.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

static_assert(sizeof(wchar_t) == 2, "the host build needs -fshort-wchar");

// ---------------------------------------------------------------- annotations
// SAL decorations document intent and expand to nothing. The calling
// conventions do not: everything that crosses between driver and kernel
// (kernel routines, the driver's callbacks, the portcls and KS interfaces)
// uses the Windows x64 convention on the host too, so that ambrel.sys, built
// by mingw, can call the host kernel and be called back by it. All of
// Windows' spellings mean that one convention on x64; NTKERNELAPI and
// NTSYSAPI (an import declaration on Windows) mark kernel exports and carry it
// as well. GCC and clang refuse a function pointer or an override of the other
// convention, so a callback or a method declared without it does not compile.
#define IN
#define OUT
#define OPTIONAL
#define HK_MS_ABI __attribute__((ms_abi))
#define NTAPI HK_MS_ABI
#define NTSYSAPI HK_MS_ABI
#define NTKERNELAPI HK_MS_ABI
#define STDMETHODCALLTYPE HK_MS_ABI
#define __stdcall HK_MS_ABI
#define __cdecl HK_MS_ABI
#define FASTCALL HK_MS_ABI
#define DECLSPEC_NOVTABLE
#define DECLSPEC_NOTHROW
#define FORCEINLINE inline __attribute__((always_inline))
// Members that Windows aligns to a pointer's size inside otherwise packed
// parameter blocks (IO_STACK_LOCATION); written where the DDK writes it.
#define POINTER_ALIGNMENT __attribute__((aligned(8)))
#define _In_
#define _In_opt_
#define _In_z_
#define _In_reads_(n)
#define _In_reads_bytes_(n)
#define _In_reads_opt_(n)
#define _Out_
#define _Out_opt_
#define _Out_writes_(n)
#define _Out_writes_bytes_(n)
#define _Out_writes_z_(n)
#define _Out_writes_bytes_opt_(n)
#define _Outptr_
#define _Outptr_opt_
#define _Outptr_result_maybenull_
#define _Inout_
#define _Inout_opt_
#define _Inout_z_
#define _Inout_updates_(n)
#define _Inout_updates_bytes_(n)
#define _Ret_maybenull_
#define _Must_inspect_result_
#define _Use_decl_annotations_
#define _Success_(expr)
#define _Check_return_
#define _Printf_format_string_
#define _Function_class_(name)
#define _IRQL_requires_(irql)
#define _IRQL_requires_max_(irql)
#define _IRQL_requires_min_(irql)
#define _IRQL_raises_(irql)
#define _IRQL_saves_
#define _IRQL_restores_
#define _IRQL_saves_global_(kind, param)
#define _IRQL_restores_global_(kind, param)
#define _IRQL_requires_same_
#define _IRQL_always_function_min_(irql)
#define _IRQL_always_function_max_(irql)
#define _Requires_lock_held_(lock)
#define _Requires_lock_not_held_(lock)
#define _Acquires_lock_(lock)
#define _Releases_lock_(lock)
#define _Guarded_by_(lock)
#define _Interlocked_
#define _Dispatch_type_(kind)
#define _Kernel_requires_resource_held_(kind)
#define _When_(cond, anno)
#define _At_(target, anno)
#define _Post_satisfies_(expr)
#define _Pre_satisfies_(expr)
#define _Field_size_(n)
#define _Field_size_bytes_(n)
#define _Null_terminated_
#define _Analysis_assume_(expr)
#define __drv_aliasesMem
#define __drv_allocatesMem(kind)
#define __drv_freesMem(kind)

// ---------------------------------------------------------------- scalars
typedef void VOID, *PVOID;
typedef const void *PCVOID;
typedef char CHAR, CCHAR, *PCHAR, *PSTR, *LPSTR;
typedef const char *PCSTR, *PCCHAR;
typedef unsigned char UCHAR, *PUCHAR, BYTE, *PBYTE;
typedef int16_t SHORT, *PSHORT;
typedef uint16_t USHORT, *PUSHORT, WORD;
typedef int32_t LONG, *PLONG, INT, *PINT;
typedef uint32_t ULONG, *PULONG, UINT, DWORD, *PDWORD;
typedef int64_t LONGLONG, *PLONGLONG, LONG64, *PLONG64;
typedef uint64_t ULONGLONG, *PULONGLONG, ULONG64, *PULONG64, DWORD64;
typedef intptr_t LONG_PTR, *PLONG_PTR, INT_PTR;
typedef uintptr_t ULONG_PTR, *PULONG_PTR, UINT_PTR, DWORD_PTR;
typedef size_t SIZE_T, *PSIZE_T;
typedef uint8_t BOOLEAN, *PBOOLEAN;
typedef int32_t BOOL;
typedef wchar_t WCHAR, *PWCHAR, *PWSTR, *LPWSTR;
typedef const wchar_t *PCWSTR, *LPCWSTR, *PCWCH;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef LONG HRESULT;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef PVOID HANDLE, *PHANDLE;
typedef UCHAR KIRQL, *PKIRQL;
typedef CHAR KPROCESSOR_MODE;
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;
typedef LONGLONG REFERENCE_TIME;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#ifndef NULL
#define NULL nullptr
#endif

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

// ---------------------------------------------------------------- GUID
typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *PGUID, *LPGUID, IID, CLSID, *PIID, *PCLSID;
typedef const GUID *LPCGUID, *PCGUID;
typedef const GUID &REFGUID;
typedef const GUID &REFIID;
typedef const GUID &REFCLSID;
static_assert(sizeof(GUID) == 16, "GUID layout");

inline bool IsEqualGUID(REFGUID a, REFGUID b) { return memcmp(&a, &b, sizeof(GUID)) == 0; }
#define IsEqualGUIDAligned(a, b) IsEqualGUID(a, b)
#define IsEqualIID(a, b) IsEqualGUID(a, b)
inline bool operator==(REFGUID a, REFGUID b) { return IsEqualGUID(a, b); }
inline bool operator!=(REFGUID a, REFGUID b) { return !IsEqualGUID(a, b); }

// DEFINE_GUID makes a constant with internal linkage; every unit that names it
// gets its own copy, which is what a single-image driver needs.
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
    static const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#define DEFINE_GUIDSTRUCT(guid, name) struct name
#define DEFINE_GUIDNAMED(name) name
#define STATIC_GUID_NULL 0x00000000L, 0x0000, 0x0000, 0, 0, 0, 0, 0, 0, 0, 0
static const GUID GUID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};

// ---------------------------------------------------------------- strings
typedef struct _UNICODE_STRING {
    USHORT Length;         // bytes, without a terminator
    USHORT MaximumLength;  // bytes
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING *PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, ANSI_STRING, *PSTRING, *PANSI_STRING;

#define RTL_CONSTANT_STRING(s) \
    { (USHORT)(sizeof(s) - sizeof((s)[0])), (USHORT)sizeof(s), (PWSTR)(s) }

// ---------------------------------------------------------------- helpers
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define CONTAINING_RECORD(address, type, field) \
    ((type *)((PCHAR)(address) - offsetof(type, field)))
#define RTL_NUMBER_OF(a) (sizeof(a) / sizeof((a)[0]))
#define ARRAYSIZE(a) RTL_NUMBER_OF(a)
#define UNREFERENCED_PARAMETER(p) ((void)(p))
#define RtlZeroMemory(d, n) memset((d), 0, (n))
#define RtlFillMemory(d, n, v) memset((d), (v), (n))
#define RtlCopyMemory(d, s, n) memcpy((d), (s), (n))
#define RtlMoveMemory(d, s, n) memmove((d), (s), (n))
#define RtlEqualMemory(a, b, n) (memcmp((a), (b), (n)) == 0)

// ---------------------------------------------------------------- lists
typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY *Flink;
    struct _LIST_ENTRY *Blink;
} LIST_ENTRY, *PLIST_ENTRY;

inline void InitializeListHead(PLIST_ENTRY head) { head->Flink = head->Blink = head; }
inline BOOLEAN IsListEmpty(const LIST_ENTRY *head) { return head->Flink == head; }
inline BOOLEAN RemoveEntryList(PLIST_ENTRY entry)
{
    PLIST_ENTRY next = entry->Flink;
    PLIST_ENTRY prev = entry->Blink;
    prev->Flink = next;
    next->Blink = prev;
    return next == prev;
}
inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY head)
{
    PLIST_ENTRY entry = head->Flink;
    RemoveEntryList(entry);
    return entry;
}
inline PLIST_ENTRY RemoveTailList(PLIST_ENTRY head)
{
    PLIST_ENTRY entry = head->Blink;
    RemoveEntryList(entry);
    return entry;
}
inline void InsertTailList(PLIST_ENTRY head, PLIST_ENTRY entry)
{
    PLIST_ENTRY last = head->Blink;
    entry->Flink = head;
    entry->Blink = last;
    last->Flink = entry;
    head->Blink = entry;
}
inline void InsertHeadList(PLIST_ENTRY head, PLIST_ENTRY entry)
{
    PLIST_ENTRY first = head->Flink;
    entry->Flink = first;
    entry->Blink = head;
    first->Blink = entry;
    head->Flink = entry;
}
