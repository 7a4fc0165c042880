// What ambrel.sys imports (x86_64-w64-mingw32-objdump -p ambrel.sys) must be a
// routine of the Windows x64 convention on the host, under the same name, or
// the image calls it with its arguments in the wrong registers. A kernel
// routine declared without NTAPI still compiles (nothing on the host calls it
// through a typed pointer), so the list is checked here.
#include <type_traits>

#include "hostkernel/executive.h"
#include "amplatform.h"

namespace {

template <typename F> struct WindowsConvention : std::false_type {};
template <typename R, typename... A> struct WindowsConvention<R(NTAPI *)(A...)> : std::true_type {};
template <typename R, typename... A> struct WindowsConvention<R(NTAPI *)(A..., ...)> : std::true_type {};

#define IMPORTED(routine) \
    static_assert(WindowsConvention<decltype(&routine)>::value, #routine " is not of the Windows convention")

// A System V routine must fail the check, or it proves nothing.
static_assert(!WindowsConvention<void (*)(int)>::value, "the check cannot tell the conventions apart");

// ntoskrnl.exe
IMPORTED(DbgPrint);
IMPORTED(ExAllocatePoolWithTag);
IMPORTED(ExFreePool);
IMPORTED(ExFreePoolWithTag);
IMPORTED(IoCreateDevice);
IMPORTED(IoCreateSymbolicLink);
IMPORTED(IoDeleteDevice);
IMPORTED(IoDeleteSymbolicLink);
IMPORTED(IoIsWdmVersionAvailable);
IMPORTED(IoOpenDeviceInterfaceRegistryKey);
IMPORTED(IoRegisterDeviceInterface);
IMPORTED(IoReleaseCancelSpinLock);
IMPORTED(IoThreadToProcess);
IMPORTED(IofCompleteRequest);
IMPORTED(KeAcquireSpinLockAtDpcLevel);
IMPORTED(KeAcquireSpinLockRaiseToDpc);
IMPORTED(KeBugCheckEx);
IMPORTED(KeCancelTimer);
IMPORTED(KeDelayExecutionThread);
IMPORTED(KeFlushQueuedDpcs);
IMPORTED(KeInitializeDpc);
IMPORTED(KeInitializeTimer);
IMPORTED(KeReleaseSpinLock);
IMPORTED(KeReleaseSpinLockFromDpcLevel);
IMPORTED(KeSetTimer);
IMPORTED(MmMapLockedPagesSpecifyCache);
IMPORTED(PsGetProcessId);
IMPORTED(RtlAssert);
IMPORTED(RtlFreeUnicodeString);
IMPORTED(RtlGUIDFromString);
IMPORTED(RtlInitUnicodeString);
IMPORTED(RtlStringFromGUID);
IMPORTED(RtlUnicodeStringToInteger);
IMPORTED(ZwClose);
IMPORTED(ZwCreateKey);
IMPORTED(ZwOpenKey);
IMPORTED(ZwQueryValueKey);
IMPORTED(ZwSetValueKey);
// The type of its list is no template argument (g++ drops its attribute), so
// a pointer of the Windows convention must take it instead.
[[maybe_unused]] int(NTAPI *const kVsnwprintf)(wchar_t *, size_t, const wchar_t *, __builtin_ms_va_list) =
    &_vsnwprintf;
IMPORTED(hostkernel::ntoskrnl::memcpy);
IMPORTED(hostkernel::ntoskrnl::memset);

// portcls.sys
IMPORTED(PcAddAdapterDevice);
IMPORTED(PcDispatchIrp);
IMPORTED(PcInitializeAdapterDriver);
IMPORTED(PcNewPort);
IMPORTED(PcNewServiceGroup);
IMPORTED(PcRegisterSubdevice);

} // namespace
