// The Windows implementation of the driver's platform: mingw-w64's DDK headers
// (wdm.h/ntddk.h, portcls.h, dmusicks.h, ks.h, ksmedia.h, ntstrsafe.h) behind
// a small prelude, plus what those headers lack. The driver reaches this file
// only through common/platform.h; the host build finds
// hostkernel/include/amplatform.h under the same name instead.
//
// Every value supplied here is the published one; the static_asserts at the
// end hold the layouts the framework and its clients read.
#pragma once

#if !defined(__x86_64__) || !defined(__cplusplus)
#error "ambrel.sys is built as C++ for x64 only"
#endif

// ------------------------------------------------------------------ prelude
// mingw's <intrin.h> defines these two as out-of-line intrinsics and wdm.h
// then defines them again inline; claiming them as already defined keeps
// wdm.h's versions, which are the kernel's.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset

#include <ntddk.h>

// The DDK's COM declarations (punknown.h, portcls.h) are written for a
// compiler that knows `interface` and the COM declspecs; ntddk.h does not
// bring them.
#ifndef interface
#define interface struct
#endif
#ifndef DECLSPEC_NOVTABLE
#define DECLSPEC_NOVTABLE
#endif
#ifndef DECLSPEC_NOTHROW
#define DECLSPEC_NOTHROW
#endif

// ksmedia.h names TCHAR in one structure; kernel text is UTF-16.
typedef WCHAR TCHAR;

// portcls.h uses the WaveRT register and latency descriptions in the WaveRT
// stream interfaces without any mingw header defining them (the driver never
// uses them).
typedef struct {
    ULONG FifoSize;
    ULONG ChipsetDelay;
    ULONG CodecDelay;
} KSRTAUDIO_HWLATENCY, *PKSRTAUDIO_HWLATENCY;

typedef struct {
    PVOID Register;
    ULONG Width;
    ULONGLONG Numerator;
    ULONGLONG Denominator;
    ULONG Accuracy;
} KSRTAUDIO_HWREGISTER, *PKSRTAUDIO_HWREGISTER;

// mingw-w64's punknown.h spells IUnknown's identifier with its last two
// groups run together, {00000000-0000-0000-0000-C00000000046}; COM's
// IUnknown is {00000000-0000-0000-C000-000000000046}, and portcls, clients
// and the framework ask for that one. punknown.h's identifier is taken under
// another name (nothing uses it, the link drops it) and the real one is
// declared after it.
#define IID_IUnknown AmMingwMisspeltIID_IUnknown
#include <portcls.h>
#undef IID_IUnknown
DEFINE_GUID(IID_IUnknown, 0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
#include <dmusicks.h>
#include <ks.h>
#include <ksmedia.h>

// Unoptimised builds make mingw withhold ntstrsafe's function bodies, expecting
// a library that no kernel link has; the inline bodies are what the kernel's
// ntstrsafe is, so every build takes them.
#pragma push_macro("__CRT__NO_INLINE")
#undef __CRT__NO_INLINE
#include <ntstrsafe.h>
#pragma pop_macro("__CRT__NO_INLINE")

// ------------------------------------------------------------------ what mingw lacks
// Kernel-streaming and DirectMusic identifiers that no mingw header declares;
// mingw's DEFINE_GUID declares them (defines them in amguids.cpp).
DEFINE_GUID(KSAUDFNAME_DMUSIC_MPU_OUT, 0xA4DF0EB5, 0xBAC9, 0x11D2, 0xB7, 0xA8, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1);
DEFINE_GUID(KSAUDFNAME_DMUSIC_MPU_IN, 0xB2EC0A7D, 0xBAC9, 0x11D2, 0xB7, 0xA8, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1);
DEFINE_GUID(KSDATAFORMAT_SUBTYPE_DIRECTMUSIC, 0x1A82F8BC, 0x3F8B, 0x11D2, 0xB7, 0x74, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1);
DEFINE_GUID(IID_IMXF, 0xC096DF9E, 0xFB09, 0x11D1, 0x81, 0xB0, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1);
DEFINE_GUID(IID_IMusicTechnology, 0x80396C3C, 0xCBCB, 0x409B, 0x9F, 0x65, 0x4F, 0x1E, 0x74, 0x67, 0xCD, 0xAF);
DEFINE_GUID(IID_IPinName, 0x29CC9AB1, 0xE89D, 0x413C, 0xB6, 0xB2, 0xF6, 0xD5, 0x00, 0x05, 0xD0, 0x63);
// The kernel-streaming proxy's class, named in each device interface's "CLSID" value.
DEFINE_GUID(CLSID_Proxy, 0x17CCA71B, 0xECD7, 0x11D0, 0xB9, 0x08, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96);

// DirectMusic synthesizer properties (dmusprop.h in the WDK), shared with the host.
#include "../dmusprop.h"

// DirectMusic kernel event flags and tests (dmusicks.h in the WDK).
#define DMUS_KEF_EVENT_COMPLETE 0x0000
#define DMUS_KEF_EVENT_INCOMPLETE 0x0001
#define DMUS_KEF_PACKAGE_EVENT 0x0002
#define kBytePositionNone (~(ULONGLONG)0)
#define SHORT_EVT(evt) ((evt)->cbEvent <= sizeof(PBYTE))
#define PACKAGE_EVT(evt) ((evt)->usFlags & DMUS_KEF_PACKAGE_EVENT)
#define INCOMPLETE_EVT(evt) ((evt)->usFlags & DMUS_KEF_EVENT_INCOMPLETE)
#define COMPLETE_EVT(evt) (((evt)->usFlags & DMUS_KEF_EVENT_INCOMPLETE) == 0)

// The framework asks a miniport for its pin names through IPinName (Windows 7
// and later); portcls.h of mingw stops before it.
#undef INTERFACE
#define INTERFACE IPinName
DECLARE_INTERFACE_(IPinName, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()

    STDMETHOD_(NTSTATUS, GetPinName)(THIS_ _In_ PIRP Irp, _In_ PKSP_PIN Pin, _Out_ PVOID Data) PURE;
};
typedef IPinName *PPINNAME;
#undef INTERFACE

// ntifs.h alone declares it, and ntifs.h does not mix with portcls.h.
extern "C" NTKERNELAPI PEPROCESS NTAPI IoThreadToProcess(_In_ PETHREAD Thread);

// ntstrsafe's counted-string formatter, absent from mingw's ntstrsafe.h.
// Documented behaviour: the result is not NUL-terminated; Length is set to the
// bytes produced; a result cut at MaximumLength gives STATUS_BUFFER_OVERFLOW;
// a malformed destination gives STATUS_INVALID_PARAMETER and is not touched.
#define NTSTRSAFE_UNICODE_STRING_MAX_CCH 32767

inline NTSTATUS RtlUnicodeStringVPrintf(_Inout_ PUNICODE_STRING destination, _In_z_ PCWSTR format,
                                        _In_ va_list arguments)
{
    if (destination == NULL || format == NULL || (destination->Length & 1) != 0 ||
        (destination->MaximumLength & 1) != 0 || destination->Length > destination->MaximumLength ||
        (destination->Buffer == NULL && destination->MaximumLength != 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    size_t cchDest = destination->MaximumLength / sizeof(WCHAR);
    if (cchDest == 0) {
        destination->Length = 0;
        return format[0] == L'\0' ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
    }
    int written = _vsnwprintf(destination->Buffer, cchDest, format, arguments);
    if (written < 0 || (size_t)written > cchDest) {
        destination->Length = (USHORT)(cchDest * sizeof(WCHAR));
        return STATUS_BUFFER_OVERFLOW;
    }
    destination->Length = (USHORT)((size_t)written * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

inline NTSTATUS RtlUnicodeStringPrintf(_Inout_ PUNICODE_STRING destination, _In_z_ PCWSTR format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    NTSTATUS status = RtlUnicodeStringVPrintf(destination, format, arguments);
    va_end(arguments);
    return status;
}

// SAL annotations mingw's headers lack; as everywhere in this build they only
// document intent.
#ifndef _Dispatch_type_
#define _Dispatch_type_(kind)
#endif
#ifndef _IRQL_always_function_max_
#define _IRQL_always_function_max_(irql)
#endif
#ifndef _IRQL_always_function_min_
#define _IRQL_always_function_min_(irql)
#endif
#ifndef _IRQL_saves_global_
#define _IRQL_saves_global_(kind, param)
#endif
#ifndef _IRQL_restores_global_
#define _IRQL_restores_global_(kind, param)
#endif
#ifndef _Kernel_requires_resource_held_
#define _Kernel_requires_resource_held_(kind)
#endif

// ------------------------------------------------------------------ GUIDs
// The kit's identifiers, the DDK's and those supplied above, are `extern` and
// defined once, in amguids.cpp (INITGUID). From here on DEFINE_GUID
// makes a constant with internal linkage, as on the host: each driver unit
// that names one of the driver's own identifiers gets its own copy and nothing
// has to own the storage.
#undef DEFINE_GUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
    static const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}

// mingw spells this as a self-assignment, which C++ refuses for a const
// reference (REFIID, REFCLSID parameters); the WDK's form only names it.
#undef UNREFERENCED_PARAMETER
#define UNREFERENCED_PARAMETER(P) ((void)(P))

// GUID pointer names the host platform offers too, so that a driver unit
// written against one compiles against the other.
typedef const GUID *PCGUID;
typedef GUID *PIID;
typedef GUID *PCLSID;

// ------------------------------------------------------------------ what every platform provides
// Debug output is always formatted and handed to DbgPrint: the kernel's own
// debug-print filter (the "Debug Print Filter" key, or the debugger's
// ed nt!Kd_DEFAULT_Mask) decides what is shown, and a listener such as
// DebugView sees the messages without a kernel debugger attached, which
// KD_DEBUGGER_ENABLED would wrongly rule out.
#define AmDebugOutputEnabled() TRUE

// PAGED_CODE() comes from wdm.h: empty unless DBG, which this build leaves
// off; the driver's own AmPagedCode() does the IRQL check in every build.

// Where a routine's code lives, as a WDK build's code_seg places it:
// pageable routines in "PAGE", which the memory manager may page out while
// nothing runs there; DriverEntry and what only it calls in "INIT", which the
// kernel frees once DriverEntry has returned (the build marks INIT discardable
// after the link: GNU ld cannot). Written before a definition.
#define PAGED_CODE_SEG __attribute__((section("PAGE")))
#define INIT_CODE_SEG __attribute__((section("INIT")))

// ------------------------------------------------------------------ published layouts
static_assert(sizeof(WCHAR) == 2, "WCHAR is UTF-16");
static_assert(sizeof(LONG) == 4 && sizeof(ULONG) == 4, "LLP64");
static_assert(sizeof(GUID) == 16, "GUID");
static_assert(sizeof(SYNTHCAPS) == 296, "SYNTHCAPS");
static_assert(FIELD_OFFSET(SYNTHCAPS, Flags) == 16, "SYNTHCAPS.Flags");
static_assert(FIELD_OFFSET(SYNTHCAPS, EffectFlags) == 36, "SYNTHCAPS.EffectFlags");
static_assert(FIELD_OFFSET(SYNTHCAPS, Description) == 40, "SYNTHCAPS.Description");
static_assert(sizeof(SYNTH_PORTPARAMS) == 28, "SYNTH_PORTPARAMS");
static_assert(FIELD_OFFSET(SYNTH_PORTPARAMS, Share) == 24, "SYNTH_PORTPARAMS.Share");
static_assert(sizeof(KSCOMPONENTID) == 72, "KSCOMPONENTID");
static_assert(FIELD_OFFSET(KSCOMPONENTID, Version) == 64, "KSCOMPONENTID.Version");
static_assert(sizeof(KSDATARANGE) == 64, "KSDATARANGE");
static_assert(sizeof(KSDATARANGE_MUSIC) == 96, "KSDATARANGE_MUSIC");
static_assert(FIELD_OFFSET(KSDATARANGE_MUSIC, Technology) == 64, "KSDATARANGE_MUSIC.Technology");
static_assert(FIELD_OFFSET(KSDATARANGE_MUSIC, ChannelMask) == 88, "KSDATARANGE_MUSIC.ChannelMask");
static_assert(sizeof(DMUS_KERNEL_EVENT) == 40, "DMUS_KERNEL_EVENT");
static_assert(FIELD_OFFSET(DMUS_KERNEL_EVENT, cbEvent) == 2, "DMUS_KERNEL_EVENT.cbEvent");
static_assert(FIELD_OFFSET(DMUS_KERNEL_EVENT, usChannelGroup) == 4, "DMUS_KERNEL_EVENT.usChannelGroup");
static_assert(FIELD_OFFSET(DMUS_KERNEL_EVENT, usFlags) == 6, "DMUS_KERNEL_EVENT.usFlags");
static_assert(FIELD_OFFSET(DMUS_KERNEL_EVENT, ullPresTime100ns) == 8, "DMUS_KERNEL_EVENT.ullPresTime100ns");
static_assert(FIELD_OFFSET(DMUS_KERNEL_EVENT, ullBytePosition) == 16, "DMUS_KERNEL_EVENT.ullBytePosition");
static_assert(FIELD_OFFSET(DMUS_KERNEL_EVENT, pNextEvt) == 24, "DMUS_KERNEL_EVENT.pNextEvt");
static_assert(FIELD_OFFSET(DMUS_KERNEL_EVENT, uData) == 32, "DMUS_KERNEL_EVENT.uData");
static_assert(sizeof(((DMUS_KERNEL_EVENT *)0)->uData.abData) == 8, "DMUS_KERNEL_EVENT inline bytes");
static_assert(sizeof(KSP_PIN) == 32, "KSP_PIN");
// portcls reads the driver's descriptor tables in these x64 layouts.
static_assert(sizeof(PCPROPERTY_ITEM) == 24, "PCPROPERTY_ITEM");
static_assert(FIELD_OFFSET(PCPROPERTY_ITEM, Handler) == 16, "PCPROPERTY_ITEM.Handler");
static_assert(sizeof(PCAUTOMATION_TABLE) == 56, "PCAUTOMATION_TABLE");
static_assert(FIELD_OFFSET(PCAUTOMATION_TABLE, Methods) == 24, "PCAUTOMATION_TABLE.Methods");
static_assert(FIELD_OFFSET(PCAUTOMATION_TABLE, Events) == 40, "PCAUTOMATION_TABLE.Events");
static_assert(sizeof(KSPIN_DESCRIPTOR) == 88, "KSPIN_DESCRIPTOR");
static_assert(FIELD_OFFSET(KSPIN_DESCRIPTOR, DataRanges) == 40, "KSPIN_DESCRIPTOR.DataRanges");
static_assert(FIELD_OFFSET(KSPIN_DESCRIPTOR, DataFlow) == 48, "KSPIN_DESCRIPTOR.DataFlow");
static_assert(FIELD_OFFSET(KSPIN_DESCRIPTOR, Category) == 56, "KSPIN_DESCRIPTOR.Category");
static_assert(FIELD_OFFSET(KSPIN_DESCRIPTOR, Name) == 64, "KSPIN_DESCRIPTOR.Name");
static_assert(sizeof(PCPIN_DESCRIPTOR) == 112, "PCPIN_DESCRIPTOR");
static_assert(FIELD_OFFSET(PCPIN_DESCRIPTOR, AutomationTable) == 16, "PCPIN_DESCRIPTOR.AutomationTable");
static_assert(FIELD_OFFSET(PCPIN_DESCRIPTOR, KsPinDescriptor) == 24, "PCPIN_DESCRIPTOR.KsPinDescriptor");
static_assert(sizeof(PCNODE_DESCRIPTOR) == 32, "PCNODE_DESCRIPTOR");
static_assert(FIELD_OFFSET(PCNODE_DESCRIPTOR, Type) == 16, "PCNODE_DESCRIPTOR.Type");
static_assert(sizeof(PCCONNECTION_DESCRIPTOR) == 16, "PCCONNECTION_DESCRIPTOR");
static_assert(sizeof(PCFILTER_DESCRIPTOR) == 80, "PCFILTER_DESCRIPTOR");
static_assert(FIELD_OFFSET(PCFILTER_DESCRIPTOR, PinSize) == 16, "PCFILTER_DESCRIPTOR.PinSize");
static_assert(FIELD_OFFSET(PCFILTER_DESCRIPTOR, Nodes) == 40, "PCFILTER_DESCRIPTOR.Nodes");
static_assert(FIELD_OFFSET(PCFILTER_DESCRIPTOR, Connections) == 56, "PCFILTER_DESCRIPTOR.Connections");
static_assert(FIELD_OFFSET(PCFILTER_DESCRIPTOR, Categories) == 72, "PCFILTER_DESCRIPTOR.Categories");
static_assert(sizeof(PCPROPERTY_REQUEST) == 72, "PCPROPERTY_REQUEST");
static_assert(FIELD_OFFSET(PCPROPERTY_REQUEST, Node) == 16, "PCPROPERTY_REQUEST.Node");
static_assert(FIELD_OFFSET(PCPROPERTY_REQUEST, Verb) == 32, "PCPROPERTY_REQUEST.Verb");
static_assert(FIELD_OFFSET(PCPROPERTY_REQUEST, Instance) == 40, "PCPROPERTY_REQUEST.Instance");
static_assert(FIELD_OFFSET(PCPROPERTY_REQUEST, ValueSize) == 48, "PCPROPERTY_REQUEST.ValueSize");
static_assert(FIELD_OFFSET(PCPROPERTY_REQUEST, Irp) == 64, "PCPROPERTY_REQUEST.Irp");
static_assert(KSPROPERTY_TYPE_GET == 0x1 && KSPROPERTY_TYPE_SET == 0x2 && KSPROPERTY_TYPE_BASICSUPPORT == 0x200,
              "property verbs");
static_assert(KSPIN_DATAFLOW_IN == 1 && KSPIN_DATAFLOW_OUT == 2, "pin data flow");
static_assert(KSPIN_COMMUNICATION_NONE == 0 && KSPIN_COMMUNICATION_SINK == 1, "pin communication");
static_assert(IO_SOUND_INCREMENT == 8, "sound boost");
static_assert(FILE_DEVICE_UNKNOWN == 0x22, "device type");
