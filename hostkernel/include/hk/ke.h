// Kernel executive: IRQL, spin locks, interlocked operations, debug output,
// assertions and bug checks, as the Windows kernel provides them.
#pragma once

#include "ntdef.h"

// ---------------------------------------------------------------- IRQL
#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

// The IRQL is per thread on the host: each real thread is its own "processor".
KIRQL NTAPI KeGetCurrentIrql(void);
void NTAPI KeRaiseIrql(KIRQL newIrql, PKIRQL oldIrql);
void NTAPI KeLowerIrql(KIRQL newIrql);
KIRQL NTAPI KeRaiseIrqlToDpcLevel(void);

// ---------------------------------------------------------------- spin locks
// A KSPIN_LOCK is one pointer-sized word, as on Windows; the host spins on it
// for real mutual exclusion between threads and keeps the verifier's view of
// owners and acquisition order beside it.
void NTAPI KeInitializeSpinLock(PKSPIN_LOCK lock);
KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK lock);
#define KeAcquireSpinLock(lock, oldIrql) (*(oldIrql) = KeAcquireSpinLockRaiseToDpc(lock))
void NTAPI KeReleaseSpinLock(PKSPIN_LOCK lock, KIRQL newIrql);
void NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK lock);
void NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK lock);

// The system-wide cancel spin lock (the I/O manager holds it around cancel
// routines).
void NTAPI IoAcquireCancelSpinLock(PKIRQL irql);
void NTAPI IoReleaseCancelSpinLock(KIRQL irql);

// ---------------------------------------------------------------- interlocked
// Full barriers, as the Windows intrinsics are.
inline LONG InterlockedIncrement(volatile LONG *p) { return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedDecrement(volatile LONG *p) { return __atomic_sub_fetch(p, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedExchange(volatile LONG *p, LONG v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
inline LONG InterlockedExchangeAdd(volatile LONG *p, LONG v) { return __atomic_fetch_add(p, v, __ATOMIC_SEQ_CST); }
inline LONG InterlockedOr(volatile LONG *p, LONG v) { return __atomic_fetch_or(p, v, __ATOMIC_SEQ_CST); }
inline LONG InterlockedAnd(volatile LONG *p, LONG v) { return __atomic_fetch_and(p, v, __ATOMIC_SEQ_CST); }
inline LONG InterlockedCompareExchange(volatile LONG *p, LONG exchange, LONG comparand)
{
    __atomic_compare_exchange_n(p, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
inline PVOID InterlockedExchangePointer(PVOID volatile *p, PVOID v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
inline PVOID InterlockedCompareExchangePointer(PVOID volatile *p, PVOID exchange, PVOID comparand)
{
    __atomic_compare_exchange_n(p, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
inline LONG64 InterlockedIncrement64(volatile LONG64 *p) { return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST); }
inline LONG64 InterlockedDecrement64(volatile LONG64 *p) { return __atomic_sub_fetch(p, 1, __ATOMIC_SEQ_CST); }
inline LONG64 InterlockedExchangeAdd64(volatile LONG64 *p, LONG64 v) { return __atomic_fetch_add(p, v, __ATOMIC_SEQ_CST); }

// ---------------------------------------------------------------- time
// System time in 100-ns units since 1601, and an interrupt-time style
// monotonic counter in 100-ns units.
void NTAPI KeQuerySystemTime(PLARGE_INTEGER time);
ULONGLONG NTAPI KeQueryInterruptTime(void);
LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER frequency);

// ---------------------------------------------------------------- debugging
// DbgPrint with the kernel's format semantics; whole lines go to the host
// log. "l" means 32 bits, "%ls"/"%ws" take UTF-16 strings, "%s" a narrow one.
ULONG NTAPI DbgPrint(PCSTR format, ...);
// Log, count and go on: what a checked build's assertion does with no debugger
// attached. The host verifier fails the test on an unexpected one.
void NTAPI RtlAssert(PVOID failedAssertion, PVOID fileName, ULONG lineNumber, PSTR message);
// Stops the "machine": the verifier's way of reporting a rule violation.
[[noreturn]] void NTAPI KeBugCheckEx(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4);

// Is anybody reading debug output? One load; the driver tests it before it
// formats anything, so a silent log costs one branch.
extern volatile LONG HkDebugOutputListening;
#define AmDebugOutputEnabled() (HkDebugOutputListening != 0)

// The check pageable code makes on entry. Windows only checks it in checked
// builds; the host verifier always does and reports the caller.
void NTAPI HkVerifyPageableCode(PCSTR file, ULONG line);
#define PAGED_CODE() HkVerifyPageableCode(__FILE__, __LINE__)

// Code placement (Windows: the pageable "PAGE" and discardable "INIT"
// sections). The host pages nothing out and frees nothing after driver entry;
// the IRQL rule of pageable code is PAGED_CODE()'s to check.
#define PAGED_CODE_SEG
#define INIT_CODE_SEG
