// Host-side control of the host kernel's executive: what tests, fuzzers,
// benchmarks and front ends use to watch and steer the kernel the driver runs
// on. Never included by driver sources.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "../amplatform.h"

namespace hostkernel {

// Pool tag from its four characters as they appear in memory: tag("AmbR").
constexpr ULONG tag(const char (&t)[5])
{
    return ULONG(uint8_t(t[0])) | ULONG(uint8_t(t[1])) << 8 | ULONG(uint8_t(t[2])) << 16 |
           ULONG(uint8_t(t[3])) << 24;
}
std::string tagName(ULONG tag);

// ------------------------------------------------------------------ debug log
// Lines are assembled per thread, so one DbgPrint sequence ending in "\n" is
// one line whatever other threads print meanwhile.
class LogCapture {
public:
    LogCapture();  // starts listening; HkDebugOutputListening becomes non-zero
    ~LogCapture(); // stops
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<std::string> lines() const;
    bool contains(std::string_view needle) const; // some line contains it
    size_t count(std::string_view needle) const;  // lines containing it
    void clear();

private:
    size_t id_;
};
// Echo every line to stderr (the front ends' --verbose), independent of captures.
void setLogToStderr(bool on);

// ------------------------------------------------------------------ pool
struct PoolTagStats {
    size_t liveAllocations = 0;
    size_t liveBytes = 0;
    size_t totalAllocations = 0;
    size_t failedAllocations = 0;
};
PoolTagStats poolStats(ULONG tag);
size_t poolLiveAllocations(); // every tag
// Sequence number of the next allocation attempt (counts attempts of every tag).
uint64_t poolAllocationAttempts();

// Fault injection. At most one of each kind is armed at a time; clearPoolFaults
// disarms all. A failed allocation returns null as on Windows.
void failPoolAllocationNumber(uint64_t attemptNumber); // absolute attempt number
void failNextPoolAllocations(uint64_t skip, uint64_t count = 1); // relative to now
void failPoolAllocationsOfTag(ULONG tag);
void failPoolAllocationsRandomly(double probability, uint64_t seed);
void clearPoolFaults();

// ------------------------------------------------------------------ verifier
// The checks Driver Verifier makes, always on. A violation is reported like a
// bug check: the rule, the site, and the process stops (tests use death tests
// to show a rule firing).
enum class Rule {
    IrqlTooHigh,          // routine called above the IRQL it allows
    IrqlTooLow,           // routine needs a raised IRQL
    IrqlNotRestored,      // lowering to a level above the current one, or a wrong saved IRQL
    SpinLockNotHeld,      // release of a lock the thread does not hold
    SpinLockRecursion,    // acquire of a lock the thread already holds
    SpinLockOrder,        // acquisition order forms a cycle with an earlier order
    SpinLockLeftHeld,     // a lock still held when the test ends
    PageableCodeAtRaisedIrql,
    PoolLeak,             // allocations left at teardown
    PoolDoubleFree,       // free of memory that is not allocated
    PoolTagMismatch,      // ExFreePoolWithTag with another tag
    UnexpectedAssertion,  // RtlAssert that the test did not expect
    // I/O, timer, registry and object rules are added by the I/O manager.
    IrpDoubleCompletion,
    IrpCompletedWithCancelRoutine,
    IrpPendingNotMarked,
    IrpPendingMarkedButCompleted,
    IrpNeverCompleted,
    TimerFreedWhileQueued,
    DpcFreedWhileQueued,
    HandleLeak,
    ObjectReferenceLeak,
    ObjectDoubleRelease,
    // portcls's: an object the driver hands the framework does not answer
    // IID_IUnknown, or answers it with another pointer from another of its
    // interfaces (COM identity).
    ComIdentity,
};
const char *ruleName(Rule rule);

[[noreturn]] void reportViolation(Rule rule, const std::string &detail, const char *file = nullptr,
                                  int line = 0);

// Assertions (RtlAssert) logged so far. Tests that provoke one on purpose
// acknowledge it with expectAssertions; every other one fails the test.
size_t assertionCount();
std::vector<std::string> assertions();
void acknowledgeAssertions(size_t count);

// Checks that run at the end of each test: no lock held, IRQL back at
// PASSIVE_LEVEL, no unacknowledged assertion, and (with checkPool) no live
// pool allocation. Reports a violation on the first that fails.
void verifyQuiescent(bool checkPool = true);
// The same checks without stopping the process: one text per problem found
// ("<RULE_NAME>: details"), empty when the kernel is quiet. The test main uses
// it to fail the test that left the problem behind and go on with the next.
std::vector<std::string> quiescenceProblems(bool checkPool = true);
// After a test that failed the checks: the calling thread back at
// PASSIVE_LEVEL holding nothing, assertions acknowledged, blocks it leaked no
// longer counted as live (they stay allocated), so the next test starts clean.
void forgetFailedTestState();
// Forget acquisition-order history (between independent tests).
void resetLockOrderHistory();
// What one test may leave for the next on purpose goes: pool faults,
// lock-order history, the record of assertions.
void resetBetweenTests();

} // namespace hostkernel
