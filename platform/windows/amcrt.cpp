// The kernel run-time pieces that no library provides to ambrel.sys: the
// stack-protector guard and its check, the image's entry point that seeds the
// guard before the driver runs, the C++ ABI's pure-virtual trap and the global
// deallocation functions. memset, memcpy, memmove and memcmp come from
// ntoskrnl.exe.
#include <amplatform.h>

// Bug-check codes (bugcodes.h).
#define AM_BUGCHECK_DRIVER_OVERRAN_STACK_BUFFER 0x000000F7
#define AM_BUGCHECK_KERNEL_SECURITY_CHECK_FAILURE 0x00000139
// KERNEL_SECURITY_CHECK_FAILURE's first parameter for a call through a
// corrupt or destroyed object's virtual function table.
#define AM_FAST_FAIL_VTGUARD_CHECK_FAILURE 1

// The value the guard holds until the entry point has seeded it; the same
// default as the MSVC run-time's cookie, so that a debugger shows at a glance
// whether seeding happened.
#define AM_STACK_GUARD_DEFAULT 0x00002B992DDFA232ULL

extern "C" NTSTATUS DriverEntry(_In_ PDRIVER_OBJECT driverObject, _In_ PUNICODE_STRING registryPath);

// GCC's -fstack-protector compares each protected frame's copy of this word
// with the word itself on return. It must never change while a protected frame
// is live, so it is seeded once, in GsDriverEntry, before any driver code runs.
extern "C" ULONG_PTR __stack_chk_guard;
ULONG_PTR __stack_chk_guard = AM_STACK_GUARD_DEFAULT;

// A frame's copy of the guard was overwritten: the stack is corrupt and
// returning would jump wherever the overrun put its bytes. Parameter 1 is the
// return address into the function whose check failed (GCC does not hand the
// overwritten value on); parameter 2 is the expected guard.
extern "C" __attribute__((noreturn, no_stack_protector)) void __stack_chk_fail(void)
{
    KeBugCheckEx(AM_BUGCHECK_DRIVER_OVERRAN_STACK_BUFFER, (ULONG_PTR)__builtin_return_address(0),
                 __stack_chk_guard, ~__stack_chk_guard, 0);
}

// Mixes what differs between loads and machines: the time-stamp counter, the
// interrupt time, where the loader put the image and the stack, and the driver
// object's address. The low byte is zero so that an overrun by a C string copy
// cannot reproduce the guard.
INIT_CODE_SEG static __attribute__((no_stack_protector)) ULONG_PTR
AmMakeStackGuard(_In_ PDRIVER_OBJECT driverObject)
{
    ULONGLONG entropy = __rdtsc();
    entropy ^= (ULONGLONG)KeQueryInterruptTime() << 17;
    entropy ^= (ULONGLONG)(ULONG_PTR)__builtin_frame_address(0);
    entropy ^= (ULONGLONG)(ULONG_PTR)&__stack_chk_guard << 23;
    entropy ^= (ULONGLONG)(ULONG_PTR)driverObject >> 4;
    // A 64-bit finaliser (splitmix64) spreads every input bit over the word.
    entropy += 0x9E3779B97F4A7C15ULL;
    entropy = (entropy ^ (entropy >> 30)) * 0xBF58476D1CE4E5B9ULL;
    entropy = (entropy ^ (entropy >> 27)) * 0x94D049BB133111EBULL;
    entropy ^= entropy >> 31;
    ULONG_PTR guard = (ULONG_PTR)(entropy & ~0xFFULL);
    if (guard == 0 || guard == (ULONG_PTR)(AM_STACK_GUARD_DEFAULT & ~0xFFULL)) {
        guard = (ULONG_PTR)(AM_STACK_GUARD_DEFAULT << 8);
    }
    return guard;
}

// The image's entry point. It runs no protected frame itself; DriverEntry and
// everything after it see the seeded guard.
extern "C" INIT_CODE_SEG __attribute__((no_stack_protector)) NTSTATUS GsDriverEntry(
    _In_ PDRIVER_OBJECT driverObject, _In_ PUNICODE_STRING registryPath)
{
    if (__stack_chk_guard == AM_STACK_GUARD_DEFAULT) {
        __stack_chk_guard = AmMakeStackGuard(driverObject);
    }
    return DriverEntry(driverObject, registryPath);
}

// Reached only through a vtable slot of an abstract class: the object is half
// constructed, half destroyed or not an object at all.
extern "C" __attribute__((noreturn)) void __cxa_pure_virtual(void)
{
    KeBugCheckEx(AM_BUGCHECK_KERNEL_SECURITY_CHECK_FAILURE, AM_FAST_FAIL_VTGUARD_CHECK_FAILURE,
                 (ULONG_PTR)__builtin_return_address(0), 0, 0);
}

// Every object of the driver comes from pool (CUnknown's operators or
// ExAllocatePoolWithTag), and there is deliberately no global operator new.
// The compiler still names the global deletes in deleting destructors of
// classes without an operator delete of their own; such storage goes back to
// the pool like everything else.
void operator delete(void *p) noexcept
{
    if (p != NULL) {
        ExFreePool(p);
    }
}

void operator delete(void *p, size_t) noexcept
{
    operator delete(p);
}
