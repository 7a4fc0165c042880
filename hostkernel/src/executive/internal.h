// Shared pieces of the host executive: the format engine behind DbgPrint and
// the wide safe-string printers, and the verifier's helpers.
#pragma once

#include <string>
#include <string_view>

#include "hostkernel/executive.h"

namespace hostkernel::detail {

// ------------------------------------------------------------------ format engine
// The kernel's printf dialect (the one DbgPrint and the ntstrsafe printers
// share): "l" is 32 bits as on an LLP64 system, "ll"/"I64" 64, "I", "z", "t"
// and "j" 64, "h" 16, "w" wide. %p is the pointer as 16 upper-case hex
// digits; null string pointers print "(null)". A format is either narrow
// (DbgPrint: %s narrow, %S/%ls/%ws wide) or wide (the W printers: %s/%ls
// wide, %S/%hs narrow).
//
// Output goes to a sink that receives narrow bytes and UTF-16 units as they
// come and decides how to join them: the log keeps UTF-8, the W printers
// UTF-16.
class FormatSink {
public:
    virtual void narrow(const char *text, size_t length) = 0;
    virtual void wide(const char16_t *text, size_t length) = 0;

protected:
    ~FormatSink() = default;
};

// The argument lists are the Windows convention's (__builtin_ms_va_start in
// an ms_abi variadic routine), since the driver calls in with that convention.
void formatNarrow(FormatSink &sink, const char *format, __builtin_ms_va_list args);
void formatWide(FormatSink &sink, const char16_t *format, __builtin_ms_va_list args);

// Unpaired surrogates become U+FFFD.
std::string utf16ToUtf8(std::u16string_view text);

// ------------------------------------------------------------------ verifier
std::string hexAddress(const void *p);
// " (called from <module>+0x<offset>)" for verifier messages.
std::string callerSite(const void *returnAddress);

// Spin locks.
size_t heldSpinLockCount(); // every thread
bool thisThreadHoldsSpinLocks();
std::string heldSpinLockDescription();
void forgetHeldSpinLocks(); // after a failed test: this thread holds nothing
void setCurrentIrqlUnchecked(KIRQL irql);
// KeRaiseIrql and KeLowerIrql on behalf of code at `site` (the loader's
// emulation of an image's CR8 writes).
void raiseIrqlAt(KIRQL newIrql, PKIRQL oldIrql, const void *site);
void lowerIrqlAt(KIRQL newIrql, const void *site);

// A bug check's first line, "*** STOP: 0x0000001E (0x...,0x...,0x...,0x...)".
std::string bugCheckLine(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4);
// Writes the report and the stack to stderr and aborts, as every violation
// and bug check does.
[[noreturn]] void stopWithReport(const std::string &report);

// One whole line of the host's own into the debug log (when anybody listens).
void logLine(const std::string &line);

// Pool.
std::string poolLeakReport(); // empty when nothing is live
void abandonLivePool();       // after a failed test: leaked blocks stop counting

// Assertions.
std::string unacknowledgedAssertionText(); // empty when none
void resetAssertions();

// Memory freed by the pool is checked by the I/O manager for queued timers
// and DPCs it still holds.
void checkFreedMemory(const void *base, size_t bytes);

} // namespace hostkernel::detail
