// The export tables of the modules a driver image imports from: ntoskrnl.exe,
// hal.dll and portcls.sys, each name bound to the host kernel's routine.
//
// Each entry names the routine itself (&::Name), so a routine the host lacks
// is a compile error and one it declares but never defines a link error,
// never a null in an import address table. The host's routines use the
// Windows x64 calling convention, so an entry whose routine does not is a
// compile error as well: the image would call it with its arguments in the
// wrong registers.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <type_traits>
#include <vector>

#include "hostkernel/loader.h"
#include "internal.h"

namespace hostkernel::loader::detail {

namespace {

#define HK_WINDOWS_ABI __attribute__((ms_abi))

template <typename R, typename... A> constexpr bool usesWindowsAbi(R (HK_WINDOWS_ABI *)(A...)) { return true; }
template <typename R, typename... A> constexpr bool usesWindowsAbi(R (HK_WINDOWS_ABI *)(A..., ...)) { return true; }
template <typename R, typename... A> constexpr bool usesWindowsAbi(R (*)(A...)) { return false; }
template <typename R, typename... A> constexpr bool usesWindowsAbi(R (*)(A..., ...)) { return false; }

// KeGetCurrentIrql stands for the host's convention as a whole.
constexpr bool kHostUsesWindowsAbi = usesWindowsAbi(&::KeGetCurrentIrql);

template <typename T> struct AlwaysTrue : std::true_type {};

template <typename R, typename... A> const void *routine(R (HK_WINDOWS_ABI *fn)(A...))
{
    return reinterpret_cast<const void *>(fn);
}
template <typename R, typename... A> const void *routine(R (HK_WINDOWS_ABI *fn)(A..., ...))
{
    return reinterpret_cast<const void *>(fn);
}
template <typename R, typename... A> const void *routine(R (*fn)(A...))
{
    static_assert(AlwaysTrue<R>::value && !kHostUsesWindowsAbi,
                  "a host routine an image imports must use the Windows x64 calling convention");
    return reinterpret_cast<const void *>(fn);
}
template <typename R, typename... A> const void *routine(R (*fn)(A..., ...))
{
    static_assert(AlwaysTrue<R>::value && !kHostUsesWindowsAbi,
                  "a host routine an image imports must use the Windows x64 calling convention");
    return reinterpret_cast<const void *>(fn);
}

// The type of _vsnwprintf's list is no template argument (g++ drops its
// attribute), so the convention is checked by this one parameter type.
const void *vsnwprintf(int(HK_WINDOWS_ABI *fn)(wchar_t *, size_t, const wchar_t *, __builtin_ms_va_list))
{
    return reinterpret_cast<const void *>(fn);
}

// The C library routines the compiler calls for block moves, with the
// image's convention.
void *HK_WINDOWS_ABI windowsMemcpy(void *to, const void *from, size_t n) { return std::memcpy(to, from, n); }
void *HK_WINDOWS_ABI windowsMemmove(void *to, const void *from, size_t n) { return std::memmove(to, from, n); }
void *HK_WINDOWS_ABI windowsMemset(void *to, int value, size_t n) { return std::memset(to, value, n); }
int HK_WINDOWS_ABI windowsMemcmp(const void *a, const void *b, size_t n) { return std::memcmp(a, b, n); }

struct Export {
    const char *module;
    const char *name;
    const void *address;
};

#define HK_EXPORT(module, name) Export{module, #name, routine(&::name)}

const std::vector<Export> &table()
{
    static const std::vector<Export> exports = [] {
        const char *const nt = "ntoskrnl.exe";
        const char *const hal = "hal.dll";
        const char *const pc = "portcls.sys";
        std::vector<Export> all = {
            // Executive: pool, IRQL, spin locks, debugging, time.
            HK_EXPORT(nt, ExAllocatePool),
            HK_EXPORT(nt, ExAllocatePoolWithTag),
            HK_EXPORT(nt, ExFreePool),
            HK_EXPORT(nt, ExFreePoolWithTag),
            HK_EXPORT(nt, KeGetCurrentIrql),
            HK_EXPORT(nt, KeRaiseIrql),
            HK_EXPORT(nt, KeLowerIrql),
            HK_EXPORT(nt, KeRaiseIrqlToDpcLevel),
            HK_EXPORT(nt, KeInitializeSpinLock),
            HK_EXPORT(nt, KeAcquireSpinLockRaiseToDpc),
            HK_EXPORT(nt, KeReleaseSpinLock),
            HK_EXPORT(nt, KeAcquireSpinLockAtDpcLevel),
            HK_EXPORT(nt, KeReleaseSpinLockFromDpcLevel),
            HK_EXPORT(nt, IoAcquireCancelSpinLock),
            HK_EXPORT(nt, IoReleaseCancelSpinLock),
            HK_EXPORT(nt, KeQuerySystemTime),
            HK_EXPORT(nt, KeQueryInterruptTime),
            HK_EXPORT(nt, DbgPrint),
            HK_EXPORT(nt, RtlAssert),
            HK_EXPORT(nt, KeBugCheckEx),
            // Timers, DPCs, events, waits.
            HK_EXPORT(nt, KeInitializeTimer),
            HK_EXPORT(nt, KeInitializeTimerEx),
            HK_EXPORT(nt, KeSetTimer),
            HK_EXPORT(nt, KeSetTimerEx),
            HK_EXPORT(nt, KeCancelTimer),
            HK_EXPORT(nt, KeReadStateTimer),
            HK_EXPORT(nt, KeInitializeDpc),
            HK_EXPORT(nt, KeInsertQueueDpc),
            HK_EXPORT(nt, KeRemoveQueueDpc),
            HK_EXPORT(nt, KeSetImportanceDpc),
            HK_EXPORT(nt, KeFlushQueuedDpcs),
            HK_EXPORT(nt, KeInitializeEvent),
            HK_EXPORT(nt, KeSetEvent),
            HK_EXPORT(nt, KeResetEvent),
            HK_EXPORT(nt, KeClearEvent),
            HK_EXPORT(nt, KeReadStateEvent),
            HK_EXPORT(nt, KeWaitForSingleObject),
            HK_EXPORT(nt, KeDelayExecutionThread),
            // Run-time library.
            HK_EXPORT(nt, RtlCompareMemory),
            HK_EXPORT(nt, RtlInitUnicodeString),
            HK_EXPORT(nt, RtlCopyUnicodeString),
            HK_EXPORT(nt, RtlCompareUnicodeString),
            HK_EXPORT(nt, RtlEqualUnicodeString),
            HK_EXPORT(nt, RtlFreeUnicodeString),
            HK_EXPORT(nt, RtlGUIDFromString),
            HK_EXPORT(nt, RtlStringFromGUID),
            HK_EXPORT(nt, RtlUnicodeStringToInteger),
            HK_EXPORT(nt, RtlUnicodeStringPrintf),
            HK_EXPORT(nt, RtlStringCbPrintfW),
            HK_EXPORT(nt, RtlStringCchPrintfW),
            HK_EXPORT(nt, RtlStringCchCopyW),
            HK_EXPORT(nt, RtlStringCchLengthW),
            Export{nt, "_vsnwprintf", vsnwprintf(&::_vsnwprintf)},
            Export{nt, "memcpy", routine(&windowsMemcpy)},
            Export{nt, "memmove", routine(&windowsMemmove)},
            Export{nt, "memset", routine(&windowsMemset)},
            Export{nt, "memcmp", routine(&windowsMemcmp)},
            // I/O manager: objects, requests, MDLs, processes.
            HK_EXPORT(nt, IoCreateDevice),
            HK_EXPORT(nt, IoDeleteDevice),
            HK_EXPORT(nt, IoAttachDeviceToDeviceStack),
            HK_EXPORT(nt, IoDetachDevice),
            HK_EXPORT(nt, IoGetAttachedDevice),
            HK_EXPORT(nt, IoGetAttachedDeviceReference),
            HK_EXPORT(nt, IoGetLowerDeviceObject),
            HK_EXPORT(nt, IoGetRelatedDeviceObject),
            HK_EXPORT(nt, IoCreateSymbolicLink),
            HK_EXPORT(nt, IoDeleteSymbolicLink),
            HK_EXPORT(nt, IoAllocateIrp),
            HK_EXPORT(nt, IoFreeIrp),
            HK_EXPORT(nt, IoBuildAsynchronousFsdRequest),
            HK_EXPORT(nt, IofCallDriver),
            HK_EXPORT(nt, IoCancelIrp),
            HK_EXPORT(nt, IofCompleteRequest),
            HK_EXPORT(nt, IoMarkIrpPending),
            HK_EXPORT(nt, IoAllocateMdl),
            HK_EXPORT(nt, IoFreeMdl),
            HK_EXPORT(nt, MmBuildMdlForNonPagedPool),
            HK_EXPORT(nt, MmMapLockedPagesSpecifyCache),
            HK_EXPORT(nt, MmUnlockPages),
            HK_EXPORT(nt, ObReferenceObject),
            HK_EXPORT(nt, ObDereferenceObject),
            HK_EXPORT(nt, IoThreadToProcess),
            HK_EXPORT(nt, PsGetCurrentProcess),
            HK_EXPORT(nt, PsGetCurrentProcessId),
            HK_EXPORT(nt, PsGetCurrentThread),
            HK_EXPORT(nt, PsGetCurrentThreadId),
            HK_EXPORT(nt, PsGetProcessId),
            // Plug and play and the registry.
            HK_EXPORT(nt, IoIsWdmVersionAvailable),
            HK_EXPORT(nt, IoRegisterDeviceInterface),
            HK_EXPORT(nt, IoSetDeviceInterfaceState),
            HK_EXPORT(nt, IoOpenDeviceInterfaceRegistryKey),
            HK_EXPORT(nt, ZwCreateKey),
            HK_EXPORT(nt, ZwOpenKey),
            HK_EXPORT(nt, ZwClose),
            HK_EXPORT(nt, ZwDeleteKey),
            HK_EXPORT(nt, ZwQueryValueKey),
            HK_EXPORT(nt, ZwSetValueKey),
            HK_EXPORT(nt, ZwDeleteValueKey),
            // The HAL's counter.
            HK_EXPORT(hal, KeQueryPerformanceCounter),
            // Port class.
            HK_EXPORT(pc, PcInitializeAdapterDriver),
            HK_EXPORT(pc, PcAddAdapterDevice),
            HK_EXPORT(pc, PcDispatchIrp),
            HK_EXPORT(pc, PcForwardIrpSynchronous),
            HK_EXPORT(pc, PcCompleteIrp),
            // PcCompletePendingPropertyRequest is declared for the driver's
            // headers but the host's property handling never pends, so it
            // has no body to bind.
            HK_EXPORT(pc, PcGetTimeInterval),
            HK_EXPORT(pc, PcNewPort),
            HK_EXPORT(pc, PcNewResourceList),
            HK_EXPORT(pc, PcNewServiceGroup),
            HK_EXPORT(pc, PcRegisterSubdevice),
        };
        // By name, for the binary search of every import: names are unique
        // across the three modules.
        std::sort(all.begin(), all.end(),
                  [](const Export &a, const Export &b) { return std::strcmp(a.name, b.name) < 0; });
        return all;
    }();
    return exports;
}

// Data the real kernel exports and the host does not provide: an image that
// imports one is refused by name rather than left with a routine's address
// where it expects a variable.
constexpr const char *kDataExports[] = {
    "ExEventObjectType", "HalDispatchTable",    "HalPrivateDispatchTable", "InitSafeBootMode",
    "IoDeviceObjectType", "IoDriverObjectType", "IoFileObjectType",        "KdDebuggerEnabled",
    "KdDebuggerNotPresent", "KeNumberProcessors", "KeTickCount",           "MmBadPointer",
    "MmHighestUserAddress", "MmSystemRangeStart", "MmUserProbeAddress",    "NlsMbCodePageTag",
    "NtBuildNumber",        "PsInitialSystemProcess", "PsProcessType",     "PsThreadType",
    "SeExports",
};

} // namespace

bool knownModule(std::string_view module)
{
    for (const Export &e : table()) {
        if (equalsIgnoringCase(module, e.module)) {
            return true;
        }
    }
    return false;
}

bool isDataExport(std::string_view module, std::string_view name)
{
    if (!equalsIgnoringCase(module, "ntoskrnl.exe") && !equalsIgnoringCase(module, "hal.dll")) {
        return false;
    }
    return std::any_of(std::begin(kDataExports), std::end(kDataExports),
                       [&](const char *data) { return name == data; });
}

} // namespace hostkernel::loader::detail

namespace hostkernel::loader {

const void *hostExport(std::string_view module, std::string_view name)
{
    const auto &table = detail::table();
    auto found = std::lower_bound(table.begin(), table.end(), name,
                                  [](const detail::Export &e, std::string_view n) { return std::string_view(e.name) < n; });
    // Export names are case-sensitive on Windows; module names are not.
    if (found != table.end() && std::string_view(found->name) == name && detail::equalsIgnoringCase(module, found->module)) {
        return found->address;
    }
    return nullptr;
}

std::vector<std::string> hostExportNames(std::string_view module)
{
    std::vector<std::string> names;
    for (const detail::Export &e : detail::table()) {
        if (detail::equalsIgnoringCase(module, e.module)) {
            names.emplace_back(e.name);
        }
    }
    return names;
}

} // namespace hostkernel::loader
