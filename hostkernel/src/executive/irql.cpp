// Per-thread IRQL and the kernel's clocks.
//
// Each host thread stands for a processor of its own, so the IRQL lives in a
// thread-local: raising it on one thread says nothing about another, as
// raising it on one processor says nothing about the next. Nothing on the
// host is interrupted, so the level only matters to the verifier, which
// checks every routine against the level it is called at.
#include <chrono>
#include <string>

#include "hk/ke.h"
#include "internal.h"

namespace {

thread_local KIRQL currentIrql = PASSIVE_LEVEL;

std::string levels(KIRQL from, KIRQL to)
{
    return "from IRQL " + std::to_string(from) + " to " + std::to_string(to);
}

} // namespace

namespace hostkernel::detail {

void setCurrentIrqlUnchecked(KIRQL irql)
{
    currentIrql = irql;
}

} // namespace hostkernel::detail

using hostkernel::Rule;
using hostkernel::detail::callerSite;

KIRQL KeGetCurrentIrql(void)
{
    return currentIrql;
}

namespace hostkernel::detail {

// The rules of KeRaiseIrql and KeLowerIrql with the caller's site given, so
// that an image's inline CR8 writes, emulated by the loader's trap, meet the
// same checks and name the instruction that made them.
void raiseIrqlAt(KIRQL newIrql, PKIRQL oldIrql, const void *site)
{
    if (newIrql < currentIrql || newIrql > HIGH_LEVEL) {
        hostkernel::reportViolation(Rule::IrqlTooHigh, "KeRaiseIrql " + levels(currentIrql, newIrql) +
                                                           " (a raise may not lower the IRQL)" + callerSite(site));
    }
    *oldIrql = currentIrql;
    currentIrql = newIrql;
}

void lowerIrqlAt(KIRQL newIrql, const void *site)
{
    if (newIrql > currentIrql) {
        hostkernel::reportViolation(Rule::IrqlNotRestored, "KeLowerIrql " + levels(currentIrql, newIrql) +
                                                               " (a lower may not raise the IRQL)" + callerSite(site));
    }
    if (newIrql < DISPATCH_LEVEL && hostkernel::detail::thisThreadHoldsSpinLocks()) {
        hostkernel::reportViolation(Rule::IrqlNotRestored, "KeLowerIrql " + levels(currentIrql, newIrql) +
                                                               " while the thread holds a spin lock" +
                                                               callerSite(site));
    }
    currentIrql = newIrql;
}

} // namespace hostkernel::detail

void KeRaiseIrql(KIRQL newIrql, PKIRQL oldIrql)
{
    hostkernel::detail::raiseIrqlAt(newIrql, oldIrql, __builtin_return_address(0));
}

void KeLowerIrql(KIRQL newIrql)
{
    hostkernel::detail::lowerIrqlAt(newIrql, __builtin_return_address(0));
}

KIRQL KeRaiseIrqlToDpcLevel(void)
{
    if (currentIrql > DISPATCH_LEVEL) {
        hostkernel::reportViolation(Rule::IrqlTooHigh, "KeRaiseIrqlToDpcLevel " +
                                                           levels(currentIrql, DISPATCH_LEVEL) +
                                                           callerSite(__builtin_return_address(0)));
    }
    KIRQL old = currentIrql;
    currentIrql = DISPATCH_LEVEL;
    return old;
}

// ------------------------------------------------------------------ time
namespace {

// 100-ns intervals between 1601-01-01 and 1970-01-01.
constexpr LONGLONG kEpochDifference = 116444736000000000LL;

template <typename Duration> LONGLONG hundredNanoseconds(Duration d)
{
    return LONGLONG(std::chrono::duration_cast<std::chrono::nanoseconds>(d).count() / 100);
}

} // namespace

void KeQuerySystemTime(PLARGE_INTEGER time)
{
    time->QuadPart = kEpochDifference + hundredNanoseconds(std::chrono::system_clock::now().time_since_epoch());
}

ULONGLONG KeQueryInterruptTime(void)
{
    // Interrupt time counts from boot; the host's steady clock has an
    // arbitrary origin of the same kind and never goes back.
    return ULONGLONG(hundredNanoseconds(std::chrono::steady_clock::now().time_since_epoch()));
}

LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER frequency)
{
    // A 10 MHz counter, which is what current Windows reports on most
    // machines; callers must scale by the frequency anyway.
    if (frequency != nullptr) {
        frequency->QuadPart = 10000000;
    }
    LARGE_INTEGER now;
    now.QuadPart = LONGLONG(KeQueryInterruptTime());
    return now;
}
